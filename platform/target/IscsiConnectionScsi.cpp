// IscsiConnection: SCSI commands, from the command PDU through the data
// transfer (immediate, unsolicited and solicited Data-Out, R2T) to the
// backend, and back as Data-In and status.
#include <algorithm>
#include <cstring>

#include "platform/target/IscsiConnectionTask.h"
#include "platform/target/IscsiTarget.h"
#include "platform/target/SplitCommand.h"

using namespace iscsi;
using namespace iscsi_connection;

// ---------------------------------------------------------------- SCSI commands

bool IscsiConnection::handleScsiCommand(Pdu& pdu) {
    const Bhs& h = pdu.bhs;
    uint32_t immediateLen = h.dataSegmentLength();
    if (!acceptCmdSn(h)) return skipBytes(padTo4(immediateLen));

    auto task = std::make_unique<Task>();
    Task& t = *task;
    t.itt = h.itt();
    std::memcpy(t.lunBytes, h.lunBytes(), 8);
    t.lun = decodeLun(h.lunBytes());
    t.readFlag = (h.flags() & 0x40) != 0;
    t.writeFlag = (h.flags() & 0x20) != 0;
    t.edtl = h.word20();
    if (!t.writeFlag && immediateLen > 0)
        return protocolError(pdu, kRejectProtocolError, "data with a command that writes nothing");
    if (t.writeFlag && immediateLen > 0 && !mParams.immediateData)
        return protocolError(pdu, kRejectProtocolError, "immediate data not negotiated");
    if (immediateLen > t.edtl || immediateLen > mParams.firstBurstLength)
        return protocolError(pdu, kRejectProtocolError, "immediate data beyond the transfer length");
    if (t.writeFlag && !h.final() && mParams.initialR2T)
        return protocolError(pdu, kRejectProtocolError, "unsolicited data not negotiated");
    {
        std::lock_guard<std::mutex> g(mTaskLock);
        if (mTasks.count(t.itt))
            return protocolError(pdu, kRejectInvalidPduField, "task tag already in use");
    }
    std::memcpy(t.cmd.cdb, h.cdb(), 16);
    t.cmd.lun = t.lun;
    t.cmd.owner = &t;
    t.cmd.completion = this;
    t.decision = mResponder.decide(h.cdb(), 16, t.lun);
    pendingUnitAttention(h.cdb()[0], t.lun, t.decision);
    const scsi::Decision& d = t.decision;

    using Kind = scsi::Decision::Kind;
    Task* raw = task.get();
    {
        std::lock_guard<std::mutex> g(mTaskLock);
        mTasks.emplace(t.itt, std::move(task));
        ++mOutstanding;
    }

    if (d.kind == Kind::Answered || d.kind == Kind::Check) {
        if (!skipBytes(padTo4(immediateLen))) return false;
        finishLocally(raw, d);
        return true;
    }
    switch (d.kind) {
    case Kind::Read:
        t.cmd.kind = TargetCommand::Kind::Read;
        t.cmd.lba = d.lba;
        t.cmd.blocks = d.blocks;
        t.cmd.fua = d.fua;
        t.split = split::needed(t.cmd);
        break;
    case Kind::SyncCache:
        t.cmd.kind = TargetCommand::Kind::SyncCache;
        t.cmd.lba = d.lba;
        t.cmd.blocks = d.blocks;
        break;
    case Kind::Write: {
        t.cmd.kind = TargetCommand::Kind::Write;
        t.cmd.lba = d.lba;
        t.cmd.fua = d.fua;
        // The host sends EDTL bytes; what lands is the smaller of that and the
        // CDB's length. A length that stops inside a block is refused once
        // the data are in.
        uint64_t tl = uint64_t(d.blocks) * scsi::kBlockSize;
        uint64_t land = std::min<uint64_t>(t.writeFlag ? t.edtl : 0, tl);
        t.partialBlock = land % scsi::kBlockSize != 0;
        t.cmd.blocks = uint32_t(land / scsi::kBlockSize);
        if (t.partialBlock) t.cmd.blocks = 0;
        t.landing = t.cmd.blocks * scsi::kBlockSize;
        t.split = split::needed(t.cmd);
        break;
    }
    case Kind::Management:
        t.cmd.kind = TargetCommand::Kind::Management;
        if (t.writeFlag && t.edtl > kMaxManagementBytes) {
            if (!skipBytes(padTo4(immediateLen))) return false;
            finishLocally(raw, [] {
                scsi::Decision c;
                c.status = scsi::kStatusCheckCondition;
                c.sense = scsi::kInvalidFieldInCdb;
                return c;
            }());
            return true;
        }
        t.landing = t.writeFlag ? t.edtl : 0;
        t.cmd.dataInLimit = t.readFlag ? t.edtl : 0;
        break;
    default:
        break;
    }

    if (t.writeFlag && t.edtl > 0) {
        if (t.landing > 0) {
            // A split write lands in the target's memory: each piece gets its own backend buffer.
            uint8_t* buf = t.cmd.kind == TargetCommand::Kind::Write && !t.split ? mBackend.writeBuffer(t.cmd) : nullptr;
            if (buf == nullptr) {
                t.ownBuffer.resize(t.landing);
                buf = t.ownBuffer.data();
            } else {
                t.hasBackendBuffer = true;
            }
            t.buffer = buf;
        }
        t.cmd.dataOut = t.buffer;
        t.cmd.dataOutLength = t.landing;
        if (immediateLen && !receiveInto(t, 0, immediateLen)) return false;
        t.received = immediateLen;
        t.unsolicited = !h.final();
        t.burstEnd = std::min(t.edtl, mParams.firstBurstLength);
        t.receiving = true;
        return startWriteTransfer(t);
    }
    if (!skipBytes(padTo4(immediateLen))) return false;
    executeTask(raw);
    return true;
}

// Called when the unsolicited part is over or a burst has ended: asks for
// the next burst, or runs the command once every byte is in.
bool IscsiConnection::startWriteTransfer(Task& t) {
    if (t.unsolicited) return true;  // Data-Out PDUs still to come without an R2T
    if (t.received < t.edtl) return sendR2T(t);
    t.receiving = false;
    executeTask(&t);
    return true;
}

bool IscsiConnection::sendR2T(Task& t) {
    uint32_t len = std::min(mParams.maxBurstLength, t.edtl - t.received);
    t.ttt = mNextTtt++;
    if (t.ttt == kReservedTag) t.ttt = mNextTtt++;
    t.burstEnd = t.received + len;
    t.expectedDataSn = 0;
    Bhs r2t;
    r2t.setOpcode(kReadyToTransfer);
    r2t.setFlags(0x80);
    r2t.setLunBytes(t.lunBytes);
    r2t.setItt(t.itt);
    r2t.setWord(20, t.ttt);
    r2t.setWord(36, t.r2tSn++);
    r2t.setWord(40, t.received);
    r2t.setWord(44, len);
    return sendPdu(r2t, nullptr, 0, false);
}

bool IscsiConnection::handleDataOut(Pdu& pdu) {
    const Bhs& h = pdu.bhs;
    uint32_t len = h.dataSegmentLength();
    Task* t = findTask(h.itt());
    // Data for a command that has been answered or aborted are dropped.
    if (t == nullptr || !t->receiving) return skipBytes(padTo4(len));
    uint32_t ttt = h.word20();
    uint32_t offset = h.word40();
    if (ttt == kReservedTag ? !t->unsolicited : ttt != t->ttt)
        return protocolError(pdu, kRejectProtocolError, "Data-Out with a wrong transfer tag");
    // A Data-Out out of sequence fails the command, not the session: the data
    // still go by their buffer offset and the command ends in a data phase error.
    if (h.word36() != t->expectedDataSn) t->dataPhaseError = true;
    if (offset != t->received || uint64_t(offset) + len > t->burstEnd)
        return protocolError(pdu, kRejectProtocolError, "Data-Out outside the burst");
    {
        // A task aborted from another session takes no more data into its
        // buffer (in a memory-backed LUN that buffer is the LUN itself).
        std::lock_guard<std::mutex> g(mTaskLock);
        if (t->aborted) t->landing = 0;
    }
    if (!receiveInto(*t, offset, len)) return false;
    t->received += len;
    ++t->expectedDataSn;
    if (!h.final()) {
        if (t->received == t->burstEnd && !t->unsolicited)
            return protocolError(pdu, kRejectProtocolError, "burst complete without the final flag");
        return true;
    }
    if (t->unsolicited) {
        t->unsolicited = false;
    } else if (t->received != t->burstEnd) {
        return protocolError(pdu, kRejectProtocolError, "final Data-Out before the end of the burst");
    }
    return startWriteTransfer(*t);
}

void IscsiConnection::finishLocally(Task* t, const scsi::Decision& d) {
    if (d.kind == scsi::Decision::Kind::Answered) {
        std::vector<TargetSegment> seg;
        if (!d.data.empty()) seg.push_back({d.data.data(), uint32_t(d.data.size())});
        sendDataAndStatus(*t, seg, d.data.size(), scsi::kStatusGood, {});
    } else {
        sendDataAndStatus(*t, {}, 0, d.status, d.sense);
    }
    removeTask(t);
}

void IscsiConnection::executeTask(Task* t) {
    {
        // Aborted from another session (a LUN or target reset) while its data
        // were still coming: it ends here, without a response.
        std::lock_guard<std::mutex> g(mTaskLock);
        if (t->aborted) {
            if (t->hasBackendBuffer) mBackend.release(t->cmd);
            mTasks.erase(t->itt);
            --mOutstanding;
            return;
        }
    }
    if (t->cmd.kind == TargetCommand::Kind::Write || t->cmd.kind == TargetCommand::Kind::Management) {
        scsi::Decision local;
        if (t->partialBlock || t->dataPhaseError) {
            local.status = scsi::kStatusCheckCondition;
            local.sense = t->dataPhaseError ? scsi::kDataPhaseError : scsi::kInvalidFieldInInformationUnit;
            sendDataAndStatus(*t, {}, 0, local.status, local.sense);
            removeTask(t);
            return;
        }
        if (t->cmd.kind == TargetCommand::Kind::Write && t->cmd.blocks == 0) {  // nothing to write: answer now
            local.kind = scsi::Decision::Kind::Answered;
            finishLocally(t, local);
            return;
        }
    }
    {
        std::lock_guard<std::mutex> g(mTaskLock);
        t->submitted = true;
        ++mSubmitted;
    }
    if (t->split) {
        // Runs here, piece after piece; this connection's next commands wait
        // for it (a host that sends such commands sends them rarely).
        uint8_t* data = t->buffer;
        if (t->cmd.kind == TargetCommand::Kind::Read) {
            t->ownBuffer.resize(size_t(t->cmd.blocks) * scsi::kBlockSize);
            data = t->ownBuffer.data();
        }
        t->cmd.status = split::runInPieces(mBackend, t->cmd, data);
        if (t->cmd.kind == TargetCommand::Kind::Read && t->cmd.status.ok())
            t->cmd.dataIn = {TargetSegment{data, uint32_t(t->ownBuffer.size())}};
        commandDone(t->cmd);
        return;
    }
    mBackend.submit(t->cmd);
}

void IscsiConnection::commandDone(TargetCommand& cmd) {
    Task* t = static_cast<Task*>(cmd.owner);
    bool aborted;
    {
        std::lock_guard<std::mutex> g(mTaskLock);
        aborted = t->aborted;
        t->responded = !aborted;
    }
    if (!aborted) {
        bool write = cmd.kind == TargetCommand::Kind::Write;
        if (cmd.status.ok()) {
            uint64_t available = 0;
            if (cmd.kind == TargetCommand::Kind::Read) {
                available = uint64_t(cmd.blocks) * scsi::kBlockSize;
            } else if (cmd.kind == TargetCommand::Kind::Management) {
                for (const auto& s : cmd.dataIn) available += s.length;
            }
            sendDataAndStatus(*t, cmd.dataIn, available, scsi::kStatusGood, {});
        } else {
            sendDataAndStatus(*t, {}, 0, scsi::kStatusCheckCondition, scsi::senseForStatus(cmd.status, write));
        }
    }
    std::lock_guard<std::mutex> g(mTaskLock);
    if (!t->split) mBackend.release(t->cmd);  // a split command's pieces were released one by one
    --mSubmitted;
    mTasks.erase(t->itt);
    --mOutstanding;
    mTaskDone.notify_all();
}

// Sends data-in (cut to what the host expects) and the status. With GOOD
// status the status rides on the last Data-In PDU.
void IscsiConnection::sendDataAndStatus(Task& t, const std::vector<TargetSegment>& data, uint64_t available,
                                        uint8_t status, const scsi::Sense& sense) {
    uint64_t expected = t.readFlag ? t.edtl : 0;
    uint64_t produced = available;
    uint8_t residualFlags = 0;
    uint32_t residual = 0;
    if (t.cmd.kind == TargetCommand::Kind::Write) {
        // Writes: compare what the host offered with what the CDB asked for.
        uint64_t tl = uint64_t(t.decision.blocks) * scsi::kBlockSize;
        uint64_t offered = t.writeFlag ? t.edtl : 0;
        if (offered > tl) { residualFlags = 0x02; residual = uint32_t(offered - tl); }
        else if (offered < tl) { residualFlags = 0x04; residual = uint32_t(tl - offered); }
        sendScsiResponse(t, status, sense, residualFlags, residual);
        return;
    }
    uint64_t toSend = std::min(expected, produced);
    if (produced > expected) { residualFlags = 0x04; residual = uint32_t(produced - expected); }
    else if (produced < expected) { residualFlags = 0x02; residual = uint32_t(expected - produced); }
    if (toSend == 0 || status != scsi::kStatusGood) {
        sendScsiResponse(t, status, sense, residualFlags, residual);
        return;
    }

    const uint32_t maxPdu = mParams.initiatorMaxRecvDataSegment;
    const uint32_t burst = mParams.maxBurstLength;
    std::vector<Bhs> headers((toSend + maxPdu - 1) / maxPdu);
    std::vector<struct iovec> iov;
    iov.reserve(headers.size() * 3 + data.size() * 2);
    size_t seg = 0;
    uint32_t segOff = 0;
    uint64_t offset = 0;
    std::lock_guard<std::mutex> g(mSendLock);
    for (size_t i = 0; i < headers.size(); ++i) {
        uint32_t len = uint32_t(std::min<uint64_t>(maxPdu, toSend - offset));
        bool last = offset + len == toSend;
        // A burst ends every MaxBurstLength bytes; its last PDU carries the F bit.
        uint64_t nextBurstEnd = (offset / burst + 1) * burst;
        Bhs& h = headers[i];
        h.setOpcode(kDataIn);
        uint8_t flags = 0;
        if (last) flags = uint8_t(0x80 | 0x01 | residualFlags);
        else if (offset + len >= nextBurstEnd) flags = 0x80;
        h.setFlags(flags);
        h.b[3] = last ? status : 0;
        h.setItt(t.itt);
        h.setWord(20, kReservedTag);
        h.setDataSegmentLength(len);
        fillSequence(h, last);
        h.setWord(36, uint32_t(i));
        h.setWord(40, uint32_t(offset));
        if (last) h.setWord(44, residual);
        iov.push_back({h.b, kBhsLength});
        uint32_t need = len;
        while (need > 0 && seg < data.size()) {
            uint32_t take = std::min(need, data[seg].length - segOff);
            iov.push_back({const_cast<uint8_t*>(data[seg].data + segOff), take});
            need -= take;
            segOff += take;
            if (segOff == data[seg].length) { ++seg; segOff = 0; }
        }
        if (padTo4(len) != len) iov.push_back({const_cast<uint8_t*>(kZeroPad), padTo4(len) - len});
        offset += len;
    }
    sendIov(iov.data(), int(iov.size()));
}

void IscsiConnection::sendScsiResponse(Task& t, uint8_t status, const scsi::Sense& sense, uint8_t residualFlags,
                                       uint32_t residual) {
    Bhs rsp;
    rsp.setOpcode(kScsiResponse);
    rsp.setFlags(uint8_t(0x80 | residualFlags));
    rsp.b[2] = 0;  // command completed at target
    rsp.b[3] = status;
    rsp.setItt(t.itt);
    rsp.setWord(36, 0);
    rsp.setWord(44, residual);
    std::vector<uint8_t> senseData;
    if (status == scsi::kStatusCheckCondition) {
        auto s = scsi::fixedSenseData(sense);
        senseData.resize(2);
        putBe16(senseData.data(), uint16_t(s.size()));
        senseData.insert(senseData.end(), s.begin(), s.end());
    }
    sendPdu(rsp, senseData.data(), uint32_t(senseData.size()), true);
}

// A change of the LUN table since this session last heard of it is reported
// once, as a unit attention on the next command that is not INQUIRY, REPORT
// LUNS or REQUEST SENSE; REPORT LUNS itself tells the host the new inventory,
// so it clears that one.
bool IscsiConnection::pendingUnitAttention(uint8_t opcode, uint32_t lun, scsi::Decision& out) {
    TargetLunTable& table = TargetLunTable::GetInstance();
    uint64_t inventory = table.inventoryGeneration();
    if (opcode == scsi::kReportLuns) {
        mInventorySeen = inventory;
        return false;
    }
    if (opcode == scsi::kInquiry || opcode == scsi::kRequestSense || !table.lunPresent(lun)) return false;
    scsi::Sense sense;
    if (inventory != mInventorySeen) {
        mInventorySeen = inventory;
        sense = scsi::kReportedLunsDataChanged;
    } else if (lun < TargetLunTable::kMaxLuns && table.capacityGeneration(lun) != mCapacitySeen[lun]) {
        mCapacitySeen[lun] = table.capacityGeneration(lun);
        sense = scsi::kCapacityDataChanged;
    } else {
        return false;
    }
    out = scsi::Decision{};
    out.kind = scsi::Decision::Kind::Check;
    out.status = scsi::kStatusCheckCondition;
    out.sense = sense;
    return true;
}
