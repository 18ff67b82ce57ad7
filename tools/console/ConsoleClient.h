// ConsoleClient: the client side of the daemon's console port. Sends one
// 260-byte request to the daemon on 127.0.0.1 and waits, for a bounded
// time, for its answer (one record, or the records of the status report).
#pragma once

#include <string>

#include "operator/StatusReport.h"

#include "operator/CuiIFTh.h"

class ConsoleClient {
public:
    // port: the daemon's console port ("CuiPort"); timeoutSeconds bounds
    // the connection and the wait for each answer.
    explicit ConsoleClient(int port, int timeoutSeconds = 5);

    // Presence check. 0 when the daemon answered, else 1 with *error set.
    int ping(std::string* error);
    // Result of set when the daemon refused the key (see
    // "CuiAllowCommandKeys"); *error holds the daemon's reason.
    static const int kRefused = 3;

    // Sets a configuration key in the running daemon (which also saves it
    // when the key stands in its "Kestrava.ini"). 0 when the daemon
    // confirmed, kRefused when it refused, else 1 with *error set.
    int set(const std::string& key, const std::string& value, std::string* error);

    // 0 when key and value can be sent (lengths, no line breaks, no "=" in
    // the key), else 1 with *error set.
    static int checkSetArguments(const std::string& key, const std::string& value, std::string* error);

    // Asks for the status report. 0 with *items filled (each record checked:
    // terminated fields, a key of [a-z0-9_.], at most
    // StatusReport::kMaxRecords records), else 1 with *error set.
    int status(StatusReport::Items* items, std::string* error);

private:
    // Reads one whole record before the deadline: 0, or 1 with *error set.
    int readRecord(int fd, CUIMSGINFO* rec, long long deadlineMs, std::string* error);
    int exchange(const CUIMSGINFO& request, std::string* error);
    int connectToDaemon(std::string* error);

    int mPort;
    int mTimeoutSeconds;
};
