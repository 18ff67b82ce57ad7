// IpcDataRecords: the plain records of the member table: one member
// (DUP_MEMB_INFO) with its status (MEMB_STAT) and protocol step (SQ_STAT),
// the queued datagram (IPC_DATA_REC) and the reply-timer block
// (IPC_DATA_RET) that travels with a queued request and is kept in the
// timer table while its time-out runs.
#pragma once

#include <cstdint>

#include "ipc/DG2Message.h"

// Member status, as the status file shows it.
enum MEMB_STAT : int32_t {
    MembNoEntry = 0,   // "No Entry": registered, exchange not finished
    MembNotActive = 1, // "Not Active": loaded from the member file, or announced its application end
    MembActive = 2,    // "Active": exchange complete, communication-error timer running
    MembCommFail = 3,  // "Comm Fail": registration or communication-error timer ran out
};

// Protocol step in progress with a member (the controller-side exchange).
enum SQ_STAT : int32_t {
    SqIdle = 0,    // no exchange running
    SqNew = 1,     // first registration of a new member: 35, 0, 181, 140, 141
    SqRenew = 2,   // a known member registers again: the same full exchange
    SqMoved = 3,   // a known member under a changed address name: 35, 141, 181
};

// Size of the fixed text fields.
constexpr int kMembAddrSize = 32;
constexpr int kMembIdSize = 32;
constexpr int kMembTextSize = 32;
constexpr int kMembNameSize = 100;

// One member. Text fields are fixed fields: NUL-padded, and an ID of the
// full 32 bytes is not NUL-terminated (read them with a bound).
struct DUP_MEMB_INFO {
    char address[kMembAddrSize];  // dotted IPv4; the slot is in use when longer than 6
    int32_t port;                 // member's UDP port
    MEMB_STAT status;
    SQ_STAT sq;
    int32_t sqParam;              // value stored with the sequence state (the step)
    char memberId[kMembIdSize];   // unique key; a leading "@" or blank marks special forms
    uint8_t flag;                 // flag given at registration
    char text[kMembTextSize];     // text given at registration
    int32_t threadId;             // protocol thread that serves this member
    char name[kMembNameSize];     // display name (host name)
};

// Timer block of a request: built with the request, kept in the timer table
// while its reply time-out runs.
struct IPC_DATA_RET {
    char peerName[DG2::kNameSize]; // peer the request went to
    uint8_t msgNo;                 // number of the datagram sent
    int32_t bodyLen;
    int32_t awaited;               // message expected next, -1 for none
    int32_t handle;                // id the timer service runs the time-out under (0 until armed)
    int32_t timeOut;               // 0: no time-out
    int32_t limit;                 // repetition limit, -1: for ever
    int32_t attempts;              // attempt counter
    int32_t value;                 // compared by CancelTM for message 230 (0 otherwise)
    int32_t threadId;              // sending thread
    int32_t timerId;               // stored by SetTimerInfo
};

// One queued datagram, in the send or the receive queue.
struct IPC_DATA_REC {
    IPC_DST_MODE mode;
    DG2MessageType msg;
    IPC_DATA_RET ret;              // timer block of an outgoing request
    int32_t value;                 // extra value; a received record: the sender's port
    char name[DG2::kNameSize];     // peer name; a received record: the sender's address text
    int32_t threadId;              // thread the record is addressed to
};
