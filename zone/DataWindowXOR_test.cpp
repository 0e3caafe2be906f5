// The parity engine over DataWindows gives the same bytes as over flat
// memory, with windows of several panes over pooled and unpooled stores, and
// builds diagonal targets out of references to the columns' stores.
#include "zone/DataWindowXOR.h"

#ifdef ESA_HAVE_DATAWINDOW
#include <gtest/gtest.h>

#include "zone/DRStripeCode.h"
#include "zone/ParityTestSupport.h"
#include "zone/XORWindow.h"

namespace {

constexpr uint32_t kBlock = DRStripeCode::kBlockSize;

// A window of `length` bytes made of panes of uneven length over two stores,
// filled with the given bytes.
DataWindow unevenWindow(const std::vector<uint8_t>& bytes, std::mt19937& rng) {
    const uint32_t length = uint32_t(bytes.size());
    DataStore* pooled = new DataStore(length, false);
    DataStore* flat = new DataStore(1u, length);
    DataWindow window;
    for (uint32_t pos = 0; pos < length;) {
        const uint32_t take = std::min<uint32_t>(length - pos, 512 * (1 + rng() % 20));
        window.add(pos / 512 % 2 ? *pooled : *flat, pos, take);
        pos += take;
    }
    pooled->DecRef();
    flat->DecRef();
    DataBuffer buffer{length, const_cast<unsigned char*>(bytes.data())};
    window.Write(buffer);
    return window;
}

std::vector<uint8_t> contents(const DataWindow& window) {
    std::vector<uint8_t> out(window.GetLength());
    DataBuffer buffer{uint32_t(out.size()), out.data()};
    window.Read(buffer);
    return out;
}

TEST(DataWindowXOR, DualParityOverWindowsEqualsDualParityOverFlatMemory) {
    std::mt19937 rng(31);
    DRStripeCode code;
    ASSERT_TRUE(DRStripeCode::forWidth(8, code));
    const uint32_t length = 2 * code.columnBlockSize();
    std::vector<std::vector<uint8_t>> data;
    std::vector<DataWindow> sources;
    std::vector<ExtentList> flatSources;
    for (unsigned c = 0; c < code.sources(); ++c) data.push_back(paritytest::randomBytes(length, rng));
    for (auto& column : data) {
        sources.push_back(unevenWindow(column, rng));
        flatSources.push_back(paritytest::whole(column));
    }
    DataWindow h(length, 0, length), d(length, 0, length);
    StatusCode status;
    XOR2DWindow(h, d, sources.data(), code.sources(), kBlock, status);
    ASSERT_TRUE(status.ok());
    std::vector<uint8_t> flatH(length), flatD(length);
    XOR2DWindow(paritytest::whole(flatH), paritytest::whole(flatD), flatSources.data(), code.sources(), kBlock, status);
    ASSERT_TRUE(status.ok());
    EXPECT_EQ(contents(h), flatH);
    EXPECT_EQ(contents(d), flatD);

    // A lost column is the XOR of the others and the horizontal parity.
    std::vector<DataWindow> others(sources.begin() + 1, sources.end());
    others.push_back(h);
    DataWindow rebuilt(length, 0, length);
    XORWindow(rebuilt, others.data(), unsigned(others.size()), status);
    ASSERT_TRUE(status.ok());
    EXPECT_EQ(contents(rebuilt), data[0]);
}

TEST(DataWindowXOR, DiagonalTargetsReferenceTheColumnsBlocks) {
    std::mt19937 rng(32);
    const unsigned S = 5;
    const uint32_t length = 2 * (S - 1) * kBlock;
    std::vector<std::vector<uint8_t>> bytes;
    std::vector<DataWindow> columns;
    std::vector<ExtentList> flat;
    for (unsigned c = 0; c < S; ++c) bytes.push_back(paritytest::randomBytes(length, rng));
    for (auto& b : bytes) columns.push_back(unevenWindow(b, rng));
    for (auto& w : columns) flat.push_back(extentsOf(w));
    std::vector<DataWindow> targets(S - 1);
    buildXOR2DWindows(kBlock, columns.data(), targets.data(), S);
    std::vector<ExtentList> flatTargets(S - 1);
    buildXOR2DWindows(kBlock, flat.data(), flatTargets.data(), S);
    for (unsigned t = 0; t + 1 < S; ++t) {
        ASSERT_EQ(targets[t].GetLength(), length);
        std::vector<uint8_t> expect(length);
        flatTargets[t].read(expect.data());
        EXPECT_EQ(contents(targets[t]), expect) << "target " << t;
        // References, not copies: the target's first byte is the column's own memory.
        EXPECT_EQ(extentsOf(targets[t])[0].data, flatTargets[t][0].data);
    }
}

TEST(DataWindowXOR, AccumulatingFormsOverWindows) {
    std::mt19937 rng(33);
    auto a = paritytest::randomBytes(6144, rng), b = paritytest::randomBytes(6144, rng);
    auto d = paritytest::randomBytes(6144, rng);
    DataWindow wa = unevenWindow(a, rng), wb = unevenWindow(b, rng), wd = unevenWindow(d, rng);
    StatusCode status;
    XORWindow(wd, wa, status);
    ASSERT_TRUE(status.ok());
    XORWindow(wa, wb, wd, true, status);
    ASSERT_TRUE(status.ok());
    auto out = contents(wd);
    for (size_t i = 0; i < out.size(); ++i) ASSERT_EQ(out[i], uint8_t(d[i] ^ b[i])) << i;  // a cancels out
}

}  // namespace
#endif
