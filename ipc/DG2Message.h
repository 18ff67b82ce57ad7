// DG2Message: the coordination datagram DG2MessageType (84-byte header and
// body, held in a 4096-byte image) and its socket-free codec: byte-order
// conversion between host and wire order (little-endian), the header stamp
// applied before sending and the acceptance test applied after receiving.
#pragma once

#include <cstddef>
#include <cstdint>

#include "ipc/DG2Codes.h"

struct DG2MessageType {
    uint8_t magic;                // 0xD2
    uint8_t result;               // 0xFF in a request, the result in a reply
    uint8_t msgNo;
    uint8_t hedVer;               // stamped by SetHedVer
    uint8_t srcForm;              // stamped by SetHedVer from srcName[0]
    uint8_t dstForm;              // stamped by SetHedVer from dstName[0]
    char srcName[DG2::kNameSize]; // fixed field: NUL-padded, not always NUL-terminated
    uint16_t srcKind;
    char dstName[DG2::kNameSize];
    uint16_t dstKind;
    uint16_t reserved[4];         // sent as zero
    uint16_t bodyLen;
    unsigned char body[DG2::kMaxBody];
};

static_assert(offsetof(DG2MessageType, magic) == 0, "header layout");
static_assert(offsetof(DG2MessageType, result) == 1, "header layout");
static_assert(offsetof(DG2MessageType, msgNo) == 2, "header layout");
static_assert(offsetof(DG2MessageType, hedVer) == 3, "header layout");
static_assert(offsetof(DG2MessageType, srcForm) == 4, "header layout");
static_assert(offsetof(DG2MessageType, dstForm) == 5, "header layout");
static_assert(offsetof(DG2MessageType, srcName) == 6 && sizeof(DG2MessageType::srcName) == 32, "header layout");
static_assert(offsetof(DG2MessageType, srcKind) == 38 && sizeof(DG2MessageType::srcKind) == 2, "header layout");
static_assert(offsetof(DG2MessageType, dstName) == 40 && sizeof(DG2MessageType::dstName) == 32, "header layout");
static_assert(offsetof(DG2MessageType, dstKind) == 72 && sizeof(DG2MessageType::dstKind) == 2, "header layout");
static_assert(offsetof(DG2MessageType, reserved) == 74 && sizeof(DG2MessageType::reserved) == 8, "header layout");
static_assert(offsetof(DG2MessageType, bodyLen) == 82 && sizeof(DG2MessageType::bodyLen) == 2, "header layout");
static_assert(offsetof(DG2MessageType, body) == DG2::kHeaderSize, "header layout");
static_assert(sizeof(DG2MessageType) == DG2::kImageSize, "datagram image");

// Process role, for the acceptance test.
enum class DG2Role { Controller, Member };

// True on a big-endian host.
bool IsBigEnd();
uint16_t sh_chg(uint16_t v);
uint32_t lo_chg(uint32_t v);

// Converts a datagram in place between host and wire order (a no-op on a
// little-endian host). False, with nothing changed, for an unknown message
// number. Each swap is its own inverse, so one routine serves both ways.
bool ByteOrderChg(DG2MessageType* msg);
// The conversion itself, whatever the host order: header words, then the
// body by message number. False, with nothing changed, for an unknown number.
bool ByteOrderSwap(DG2MessageType* msg);

// Body converters, given the first body byte.
void Chg_0(unsigned char* body);
void Chg_29(unsigned char* body);
void Chg_30(unsigned char* body);
void Chg_31(unsigned char* body);
void Chg_35(unsigned char* body);
void Chg_81(unsigned char* body);
void Chg_127(unsigned char* body);
void Chg_129(unsigned char* body);
void Chg_130(unsigned char* body);
void Chg_131(unsigned char* body);
void Chg_140(unsigned char* body);
void Chg_141(unsigned char* body);
void Chg_181(unsigned char* body);
void Chg_229(unsigned char* body);
void Chg_230(unsigned char* body);

// Stamps header version 1 and the two name forms (0xFF empty, 1 leading
// space, 0 otherwise). Called on every outgoing datagram after the names
// are filled.
void SetHedVer(DG2MessageType* msg);

// The acceptance test of a received (already converted) datagram: magic
// 0xD2; on a controller sender kind 17 and receiver kind 19 or 81; on a
// member sender kind 19 and receiver kind 17 or 113.
bool UsefulDataCheck(const DG2MessageType* msg, DG2Role role);

// Why a received datagram is dropped (DG2Accepted: it is not).
enum class DG2Drop {
    DG2Accepted,
    DG2Short,         // fewer than the 84 header bytes
    DG2UnknownNumber, // a message number this system does not know
    DG2SizeMismatch,  // size is not the header's body length + 84
    DG2NotForUs,      // wrong magic, or kinds that are not for this role
};

// The whole check of a received datagram of `size` bytes, in the order the
// transport applies it: conversion to host order (unknown number), size
// against the header's body length, the 84-byte minimum, the acceptance
// test of the role. The image must be zero beyond `size` (the transport
// clears its buffer), so a short datagram is never read past its end.
DG2Drop DG2CheckReceived(DG2MessageType* msg, size_t size, DG2Role role);
// A short text for a log line ("unknown message number", ...).
const char* DG2DropText(DG2Drop why);

// Bounded copy of a text into a fixed name or text field: NUL-padded, cut
// at the field size (then not NUL-terminated).
void DG2SetField(char* field, size_t size, const char* text);
