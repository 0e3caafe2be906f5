#include "tools/esactl/MgmtClient.h"

#include <unistd.h>

extern "C" {
#include <iscsi/iscsi.h>
#include <iscsi/scsi-lowlevel.h>
}

namespace esactl {

MgmtClient::~MgmtClient() {
    if (mCtx) {
        iscsi_logout_sync(mCtx);
        iscsi_destroy_context(mCtx);
    }
}

bool MgmtClient::connect(const std::string& portal) {
    std::string initiator = "iqn.2026-11.local.esa:esactl-" + std::to_string(::getpid());
    mCtx = iscsi_create_context(initiator.c_str());
    if (!mCtx) {
        mError = "cannot create an iSCSI context";
        return false;
    }
    iscsi_set_targetname(mCtx, kTarget);
    iscsi_set_session_type(mCtx, ISCSI_SESSION_NORMAL);
    iscsi_set_header_digest(mCtx, ISCSI_HEADER_DIGEST_NONE);
    iscsi_set_noautoreconnect(mCtx, 1);
    iscsi_set_timeout(mCtx, 30);
    // A plain login: an appliance without a pack has no LUN to check.
    if (iscsi_connect_sync(mCtx, portal.c_str()) != 0 || iscsi_login_sync(mCtx) != 0) {
        mError = "cannot reach the appliance at " + portal + ": " + iscsi_get_error(mCtx);
        iscsi_destroy_context(mCtx);
        mCtx = nullptr;
        return false;
    }
    return true;
}

std::string MgmtClient::refusalText(int key, int asc) {
    if (key == SCSI_SENSE_NOT_READY) return "no disk pack is loaded";
    if (key == SCSI_SENSE_ILLEGAL_REQUEST) {
        if (asc == 0x2000) return "the appliance does not support this command or operation";
        if (asc == 0x2400) return "the appliance refused a field of the command (unknown page or bad value)";
        if (asc == 0x2500) return "no such LUN, or its id does not match";
        if (asc == 0x0e03) return "the data sent did not fit the command";
    }
    if (key == SCSI_SENSE_DATA_PROTECTION) return "the pack is out of space or read-only";
    if (key == SCSI_SENSE_HARDWARE_ERROR) return "the appliance hit an internal error";
    char text[64];
    std::snprintf(text, sizeof text, "sense key 0x%x, code 0x%04x", key, asc);
    return text;
}

MgmtResult MgmtClient::raw(const std::vector<uint8_t>& cdb, const std::vector<uint8_t>& dataOut, uint32_t dataIn) {
    MgmtResult r;
    if (!mCtx) {
        r.reached = false;
        r.error = "not connected";
        return r;
    }
    const int dir = !dataOut.empty() ? SCSI_XFER_WRITE : dataIn > 0 ? SCSI_XFER_READ : SCSI_XFER_NONE;
    const int expected = !dataOut.empty() ? int(dataOut.size()) : int(dataIn);
    scsi_task* task = scsi_create_task(int(cdb.size()), const_cast<unsigned char*>(cdb.data()), dir, expected);
    if (!task) {
        r.error = "out of memory";
        return r;
    }
    iscsi_data out{};
    out.data = const_cast<unsigned char*>(dataOut.data());
    out.size = dataOut.size();
    scsi_task* done = iscsi_scsi_command_sync(mCtx, 0, task, dataOut.empty() ? nullptr : &out);
    if (done == nullptr) {
        r.reached = false;
        r.error = std::string("the appliance did not answer: ") + iscsi_get_error(mCtx);
        scsi_free_scsi_task(task);
        return r;
    }
    if (task->status == SCSI_STATUS_GOOD) {
        r.ok = true;
        if (task->datain.size > 0) r.data.assign(task->datain.data, task->datain.data + task->datain.size);
    } else if (task->status == SCSI_STATUS_CHECK_CONDITION) {
        r.senseKey = task->sense.key;
        r.asc = task->sense.ascq;
        r.error = refusalText(r.senseKey, r.asc);
    } else {
        r.error = "SCSI status " + std::to_string(task->status) + ": " + iscsi_get_error(mCtx);
    }
    scsi_free_scsi_task(task);
    return r;
}

MgmtResult MgmtClient::modeSense(uint8_t page, uint16_t allocation, uint8_t byte4) {
    std::vector<uint8_t> cdb(10, 0);
    cdb[0] = 0x5A;
    cdb[3] = page;
    cdb[4] = byte4;
    cdb[7] = uint8_t(allocation >> 8);
    cdb[8] = uint8_t(allocation);
    return raw(cdb, {}, allocation);
}

MgmtResult MgmtClient::modeSelect(uint8_t page, const std::vector<uint8_t>& record) {
    std::vector<uint8_t> cdb(10, 0);
    cdb[0] = 0x55;
    cdb[3] = page;
    cdb[7] = uint8_t(record.size() >> 8);
    cdb[8] = uint8_t(record.size());
    return raw(cdb, record, 0);
}

MgmtResult MgmtClient::systemOperation(uint8_t op, const std::vector<uint8_t>& data, uint16_t allocation,
                                       uint8_t byte7, uint8_t byte9) {
    std::vector<uint8_t> cdb(10, 0);
    cdb[0] = 0xEA;
    cdb[1] = 0x10;
    cdb[3] = op;
    if (allocation) {
        cdb[7] = uint8_t(allocation >> 8);
        cdb[8] = uint8_t(allocation);
    } else {
        cdb[7] = byte7;
    }
    cdb[9] = byte9;
    return raw(cdb, data, allocation);
}

}  // namespace esactl
