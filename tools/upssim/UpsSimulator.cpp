#include "tools/upssim/UpsSimulator.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <string.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <sstream>

namespace upssim {

const unsigned char UpsSimulator::kGarbage[6] = {0x5A, 0x00, 0xC3, 0x11, 0x7E, 0xFF};

namespace {

std::vector<std::string> splitWords(const std::string& line) {
    std::vector<std::string> words;
    std::istringstream in(line);
    std::string w;
    while (in >> w) words.push_back(w);
    return words;
}

std::string speedText(int speed) {
    return speed == 0 ? std::string("0 (hang-up)") : std::to_string(speed);
}

}  // namespace

UpsSimulator::UpsSimulator(const SimOptions& options) : options_(options), model_(options) {}

UpsSimulator::~UpsSimulator() {
    control_.close();
    if (wakeRead_ >= 0) ::close(wakeRead_);
    if (wakeWrite_ >= 0) ::close(wakeWrite_);
}

long UpsSimulator::nowMs() {
    using namespace std::chrono;
    return static_cast<long>(duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count());
}

bool UpsSimulator::start(std::string* error) {
    int p[2];
    if (pipe2(p, O_NONBLOCK | O_CLOEXEC) != 0) {
        *error = std::string("pipe: ") + strerror(errno);
        return false;
    }
    wakeRead_ = p[0];
    wakeWrite_ = p[1];
    if (!log_.open(options_.logPath, error)) return false;
    log_.setMirror(options_.verbose ? stderr : nullptr);
    if (!pty_.open(error) || !pointLink(error)) return false;
    if (!options_.controlPath.empty() && !control_.listen(options_.controlPath, error)) return false;
    std::lock_guard<std::mutex> lock(mu_);
    note("simulated UPS \"" + options_.model + "\" serial " + options_.serial + " on " +
         pty_.slavePath() + "; answers at " + SimOptions::joinInts(model_.speeds()));
    if (!model_.activeAlarms().empty())
        note("alarms active at start: " + SimOptions::joinInts(model_.activeAlarms()));
    if (control_.listening()) note("control socket " + options_.controlPath);
    return true;
}

const std::string& UpsSimulator::devicePath() const {
    return options_.linkPath.empty() ? pty_.slavePath() : options_.linkPath;
}

bool UpsSimulator::pointLink(std::string* error) {
    if (options_.linkPath.empty()) return true;
    // A new link beside the old one, renamed over it: the path never names
    // a half-made link.
    std::string fresh = options_.linkPath + ".new";
    ::unlink(fresh.c_str());
    if (::symlink(pty_.slavePath().c_str(), fresh.c_str()) != 0 ||
        ::rename(fresh.c_str(), options_.linkPath.c_str()) != 0) {
        *error = "cannot link " + options_.linkPath + " to " + pty_.slavePath() + ": " + strerror(errno);
        ::unlink(fresh.c_str());
        return false;
    }
    return true;
}

void UpsSimulator::hangUp(long now, long ms) {
    // The host's descriptor of the old terminal is hung up; the device
    // path is gone until the new terminal is there.
    pty_.close();
    pending_.clear();
    reader_.clear();
    if (!options_.linkPath.empty()) ::unlink(options_.linkPath.c_str());
    reopenAtMs_ = now + ms;
    lastSpeed_ = -1;
    note("line hung up; a new terminal in " + std::to_string(ms) + " ms");
}

bool UpsSimulator::reopenTerminal(std::string* error) {
    reopenAtMs_ = -1;
    if (!pty_.open(error) || !pointLink(error)) return false;
    note("new terminal " + pty_.slavePath() +
         (options_.linkPath.empty() ? std::string() : " behind " + options_.linkPath));
    return true;
}

void UpsSimulator::queueReply(std::vector<Bytes> frames, long due) {
    FaultKind kind = faultCount_ > 0 ? fault_ : FaultKind::None;
    if (kind == FaultKind::None || kind == FaultKind::Silent || frames.empty()) {
        pending_.push_back({due, frames});
        return;
    }
    if (--faultCount_ == 0) fault_ = FaultKind::None;
    Bytes& first = frames.front();
    // Header (start, block, length, sequence) and half the data.
    const size_t cut = 4 + first[2] / 2;
    switch (kind) {
    case FaultKind::Checksum:
        first.back() = static_cast<uint8_t>(first.back() + 1);
        break;
    case FaultKind::Sequence:
        // One more than due; the checksum stays right for the changed byte.
        first[3] = static_cast<uint8_t>(first[3] + 1);
        first.back() = static_cast<uint8_t>(first.back() - 1);
        break;
    case FaultKind::Truncate:
        frames = {Bytes(first.begin(), first.begin() + static_cast<long>(cut))};
        break;
    case FaultKind::Split: {
        std::vector<Bytes> rest = {Bytes(first.begin() + static_cast<long>(cut), first.end())};
        rest.insert(rest.end(), frames.begin() + 1, frames.end());
        pending_.push_back({due, {Bytes(first.begin(), first.begin() + static_cast<long>(cut))}});
        pending_.push_back({due + faultMs_, rest});
        note("fault played: reply split, second part " + std::to_string(faultMs_) + " ms later");
        return;
    }
    default:
        break;
    }
    note(std::string("fault played: ") +
         (kind == FaultKind::Checksum ? "wrong checksum" : kind == FaultKind::Sequence ? "wrong sequence number"
                                                                                       : "reply truncated"));
    pending_.push_back({due, frames});
}

std::string UpsSimulator::faultText() const {
    static const char* const names[] = {"off", "checksum", "sequence", "truncate", "split", "silent"};
    if (faultCount_ <= 0) return "off";
    return std::string(names[static_cast<int>(fault_)]) + "(" + std::to_string(faultCount_) + ")";
}

std::string UpsSimulator::faultCommand(const std::vector<std::string>& w) {
    static const char kUsage[] =
        "error: usage: fault checksum|sequence|truncate [N] | fault split MS [N] | fault silent N | fault off";
    if (w.size() < 2) return kUsage;
    const std::string& kind = w[1];
    if (kind == "off" && w.size() == 2) {
        fault_ = FaultKind::None;
        faultCount_ = 0;
        return "ok fault off";
    }
    size_t countAt = 2;
    long ms = 0;
    FaultKind k;
    if (kind == "checksum") k = FaultKind::Checksum;
    else if (kind == "sequence") k = FaultKind::Sequence;
    else if (kind == "truncate") k = FaultKind::Truncate;
    else if (kind == "silent") k = FaultKind::Silent;
    else if (kind == "split") {
        int v = 0;
        if (w.size() < 3 || !SimOptions::parseInt(w[2], 0, 600000, &v)) return kUsage;
        k = FaultKind::Split;
        ms = v;
        countAt = 3;
    } else {
        return kUsage;
    }
    int count = 1;
    if (k == FaultKind::Silent && w.size() != 3) return kUsage;
    if (w.size() > countAt + 1 || (w.size() == countAt + 1 && !SimOptions::parseInt(w[countAt], 1, 1000000, &count)))
        return kUsage;
    fault_ = k;
    faultCount_ = count;
    faultMs_ = ms;
    return "ok fault " + faultText();
}

void UpsSimulator::setCommandInput(int fd, FILE* out) {
    inputFd_ = fd;
    inputAnswers_ = out;
}

void UpsSimulator::requestStop() {
    stop_ = true;
    if (wakeWrite_ >= 0) {
        char c = 'q';
        ssize_t r = ::write(wakeWrite_, &c, 1);
        (void)r;
    }
}

void UpsSimulator::note(const std::string& text) {
    log_.write("NOTE", text);
    if (notes_ && !options_.quiet && !options_.verbose) {
        std::fprintf(notes_, "upssim: %s\n", text.c_str());
        std::fflush(notes_);
    }
}

void UpsSimulator::checkSpeed() {
    int speed = pty_.lineSpeed();
    if (speed == lastSpeed_) return;
    lastSpeed_ = speed;
    reader_.clear();
    note("line speed " + speedText(speed) +
         (model_.acceptsSpeed(speed) ? ": answering" : ": not accepted, staying silent"));
}

void UpsSimulator::readTerminal(long now) {
    unsigned char buf[1024];
    for (;;) {
        ssize_t n = ::read(pty_.masterFd(), buf, sizeof buf);
        if (n > 0) {
            int speed = pty_.lineSpeed();
            if (speed != lastSpeed_) checkSpeed();
            std::vector<XcpCommandReader::Item> items;
            reader_.feed(buf, static_cast<size_t>(n), now, &items);
            for (const auto& item : items) handleItem(item, speed, now);
            continue;
        }
        if (n < 0 && errno == EINTR) continue;
        if (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK) {
            // No slave side open anywhere (cannot normally happen since we
            // hold one): do not spin.
            usleep(50000);
        }
        return;
    }
}

void UpsSimulator::handleItem(const XcpCommandReader::Item& item, int speed, long now) {
    std::string hex = XcpFrameCodec::toHex(item.raw);
    switch (item.kind) {
    case XcpCommandReader::Kind::Escape:
        log_.write("RX", hex + " (escape, ignored)");
        return;
    case XcpCommandReader::Kind::Junk:
        log_.write("RX", hex + " (junk, ignored)");
        return;
    case XcpCommandReader::Kind::BadChecksum:
        ++ignoredFrames_;
        log_.write("RX", hex + " (bad checksum, ignored)");
        return;
    case XcpCommandReader::Kind::Incomplete:
        log_.write("RX", hex + " (incomplete frame, dropped)");
        return;
    case XcpCommandReader::Kind::Command:
        break;
    }
    ++rxFrames_;
    if (fault_ == FaultKind::Silent && faultCount_ > 0) {
        if (--faultCount_ == 0) fault_ = FaultKind::None;
        ++ignoredFrames_;
        log_.write("RX", hex + " (ignored: fault silent)");
        return;
    }
    if (silent_) {
        ++ignoredFrames_;
        log_.write("RX", hex + " (ignored: silent)");
        return;
    }
    if (!model_.acceptsSpeed(speed)) {
        ++ignoredFrames_;
        log_.write("RX", hex + " (ignored: line speed " + speedText(speed) + " not accepted)");
        return;
    }
    log_.write("RX", hex);
    std::vector<std::string> notes;
    UpsModel::Reply reply = model_.handle(item.code, item.args, now, &notes);
    for (const std::string& n : notes) note(n);
    if (reply.send) {
        size_t frameSize = static_cast<size_t>(options_.frameSize);
        queueReply(XcpFrameCodec::encodeReplyFrames(reply.block, reply.data, frameSize), now + delayMs_);
    }
}

void UpsSimulator::sendGarbage() {
    garbageNow_ = false;
    if (pty_.writeAll(kGarbage, sizeof kGarbage, 1000))
        log_.write("TX", XcpFrameCodec::toHex(kGarbage, sizeof kGarbage) + " (garbage)");
    else
        note("garbage not sent: the terminal takes no data");
}

void UpsSimulator::sendDue(long now) {
    while (!pending_.empty() && pending_.front().dueMs <= now) {
        PendingReply reply = pending_.front();
        pending_.pop_front();
        if (garbageNext_) {
            garbageNext_ = false;
            sendGarbage();
        }
        for (const Bytes& frame : reply.frames) {
            if (!pty_.writeAll(frame.data(), frame.size(), 1000)) {
                note("reply lost: the terminal takes no data");
                break;
            }
            ++txFrames_;
            log_.write("TX", XcpFrameCodec::toHex(frame));
        }
    }
}

void UpsSimulator::readCommandInput() {
    char buf[512];
    ssize_t n = ::read(inputFd_, buf, sizeof buf);
    if (n < 0 && (errno == EAGAIN || errno == EINTR)) return;
    if (n <= 0) {
        inputFd_ = -1;
        std::lock_guard<std::mutex> lock(mu_);
        note("standard input closed; still running (stop with SIGTERM, SIGINT or \"quit\")");
        return;
    }
    for (ssize_t i = 0; i < n; ++i) {
        if (buf[i] != '\n') {
            if (inputLine_.size() < ControlServer::kMaxLine) inputLine_ += buf[i];
            continue;
        }
        bool quit = false;
        std::string answer = execute(inputLine_, &quit);
        inputLine_.clear();
        if (!answer.empty() && inputAnswers_) {
            std::fprintf(inputAnswers_, "%s\n", answer.c_str());
            std::fflush(inputAnswers_);
        }
    }
}

std::string UpsSimulator::execute(const std::string& line, bool* quit) {
    std::lock_guard<std::mutex> lock(mu_);
    return executeLocked(line, quit);
}

std::string UpsSimulator::statusLocked() {
    int speed = pty_.lineSpeed();
    std::ostringstream o;
    o << "ok speed=" << speed << " answering=" << (model_.acceptsSpeed(speed) && !silent_ ? "yes" : "no")
      << " speeds=" << SimOptions::joinInts(model_.speeds()) << " silent=" << (silent_ ? "on" : "off")
      << " delay=" << delayMs_ << " fault=" << faultText() << " line=" << (reopenAtMs_ >= 0 ? "hung-up" : "up")
      << " garbage=" << (garbageNext_ ? "next" : "off") << " alarms="
      << (model_.activeAlarms().empty() ? std::string("none") : SimOptions::joinInts(model_.activeAlarms()))
      << " " << model_.stateText() << " rx=" << rxFrames_ << " tx=" << txFrames_
      << " ignored=" << ignoredFrames_;
    return o.str();
}

std::string UpsSimulator::executeLocked(const std::string& rawLine, bool* quit) {
    std::string line = rawLine;
    if (!line.empty() && line.back() == '\r') line.pop_back();
    std::vector<std::string> w = splitWords(line);
    if (w.empty() || w[0][0] == '#') return std::string();
    if (w[0] != "status" && w[0] != "help") note("command: " + line);
    const std::string& cmd = w[0];
    std::string error;
    int n = 0;
    if (cmd == "alarm") {
        if (w.size() != 3 || (w[1] != "set" && w[1] != "clear"))
            return "error: usage: alarm set N | alarm clear N";
        if (!SimOptions::parseInt(w[2], 0, 229, &n)) return "error: alarm number 0..229 expected";
        bool on = w[1] == "set";
        if (!model_.setAlarm(n, on, &error)) return "error: " + error;
        return "ok alarm " + std::to_string(n) + (on ? " active" : " cleared");
    }
    if (cmd == "silent") {
        if (w.size() != 2 || (w[1] != "on" && w[1] != "off")) return "error: usage: silent on|off";
        silent_ = w[1] == "on";
        return std::string("ok silent ") + (silent_ ? "on" : "off");
    }
    if (cmd == "garbage") {
        if (w.size() == 1) {
            garbageNext_ = true;
            return "ok garbage before the next reply";
        }
        if (w.size() == 2 && w[1] == "now") {
            garbageNow_ = true;
            requestWake();
            return "ok garbage sent";
        }
        return "error: usage: garbage [now]";
    }
    if (cmd == "fault") return faultCommand(w);
    if (cmd == "hangup") {
        if (w.size() > 2 || (w.size() == 2 && !SimOptions::parseInt(w[1], 0, 600000, &n)))
            return "error: usage: hangup [MS] (0..600000)";
        if (reopenAtMs_ >= 0) return "error: the line is already hung up";
        hangUp(nowMs(), w.size() == 2 ? n : 1000);
        requestWake();
        return "ok hung up";
    }
    if (cmd == "delay") {
        if (w.size() != 2 || !SimOptions::parseInt(w[1], 0, 600000, &n))
            return "error: usage: delay MS (0..600000)";
        delayMs_ = n;
        return "ok delay " + std::to_string(n);
    }
    if (cmd == "speeds") {
        std::string list;
        for (size_t i = 1; i < w.size(); ++i) list += w[i] + ",";
        std::vector<int> speeds;
        if (!SimOptions::parseSpeedList(list, &speeds, &error)) return "error: " + error;
        model_.setSpeeds(std::set<int>(speeds.begin(), speeds.end()));
        lastSpeed_ = -1;  // report whether the current speed is answered now
        return "ok speeds " + SimOptions::joinInts(model_.speeds());
    }
    if (cmd == "meter") {
        if (w.size() != 3 || !SimOptions::parseInt(w[1], 0, 255, &n))
            return "error: usage: meter N VALUE";
        char* end = nullptr;
        double v = std::strtod(w[2].c_str(), &end);
        if (end == w[2].c_str() || *end != '\0') return "error: meter value must be a number";
        if (!model_.setMeter(n, v, &error)) return "error: " + error;
        return "ok meter " + std::to_string(n) + " " + w[2];
    }
    if (cmd == "status") return statusLocked();
    if (cmd == "help")
        return "ok commands: alarm set N | alarm clear N | silent on|off | garbage [now] | delay MS | "
               "speeds LIST | meter N VALUE | fault KIND [ARGS] | hangup [MS] | status | quit";
    if (cmd == "quit") {
        *quit = true;
        requestStop();
        return "ok quitting";
    }
    return "error: unknown command \"" + cmd + "\" (try help)";
}

void UpsSimulator::requestWake() {
    if (wakeWrite_ >= 0) {
        char c = 'w';
        ssize_t r = ::write(wakeWrite_, &c, 1);
        (void)r;
    }
}

int UpsSimulator::run() {
    while (!stop_) {
        std::vector<struct pollfd> fds;
        fds.push_back({wakeRead_, POLLIN, 0});
        // While hung up the slot holds -1, which poll skips.
        fds.push_back({pty_.masterFd(), POLLIN, 0});
        size_t inputIndex = fds.size();
        if (inputFd_ >= 0) fds.push_back({inputFd_, POLLIN, 0});
        size_t controlStart = fds.size();
        control_.addPollFds(&fds);

        int timeout = 100;
        {
            std::lock_guard<std::mutex> lock(mu_);
            long due = !pending_.empty() ? pending_.front().dueMs : reopenAtMs_;
            if (due >= 0) {
                long wait = due - nowMs();
                if (wait < timeout) timeout = wait < 0 ? 0 : static_cast<int>(wait);
            }
        }
        int rc = poll(fds.data(), fds.size(), timeout);
        if (rc < 0 && errno != EINTR) {
            std::lock_guard<std::mutex> lock(mu_);
            note(std::string("poll failed: ") + strerror(errno));
            break;
        }
        if (rc > 0 && fds[0].revents) {
            char buf[64];
            while (::read(wakeRead_, buf, sizeof buf) > 0) {
            }
        }
        if (stop_) break;
        long now = nowMs();
        {
            std::lock_guard<std::mutex> lock(mu_);
            std::string error;
            if (reopenAtMs_ >= 0 && now >= reopenAtMs_ && !reopenTerminal(&error)) {
                note(error);
                break;
            }
            if (reopenAtMs_ < 0) checkSpeed();
            if (rc > 0 && fds[1].fd >= 0 && fds[1].fd == pty_.masterFd() && fds[1].revents) readTerminal(now);
            std::vector<XcpCommandReader::Item> items;
            reader_.expire(now, &items);
            for (const auto& item : items) handleItem(item, pty_.lineSpeed(), now);
            std::vector<std::string> notes;
            model_.tick(now, &notes);
            for (const std::string& n : notes) note(n);
            if (garbageNow_) sendGarbage();
            sendDue(nowMs());
        }
        if (rc > 0 && inputFd_ >= 0 && inputIndex < fds.size() && fds[inputIndex].revents)
            readCommandInput();
        if (rc > 0) {
            std::vector<ControlServer::Line> lines;
            for (size_t i = controlStart; i < fds.size(); ++i)
                control_.handle(fds[i].fd, fds[i].revents, &lines);
            for (const auto& l : lines) {
                bool quit = false;
                std::string answer = execute(l.text, &quit);
                if (!answer.empty()) control_.reply(l.client, answer);
            }
            control_.closeFinished();
        }
    }
    {
        std::lock_guard<std::mutex> lock(mu_);
        note("stopping");
    }
    control_.close();
    if (!options_.linkPath.empty()) ::unlink(options_.linkPath.c_str());
    return 0;
}

}  // namespace upssim
