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
    if (!pty_.open(error)) return false;
    if (!options_.controlPath.empty() && !control_.listen(options_.controlPath, error)) return false;
    std::lock_guard<std::mutex> lock(mu_);
    note("simulated UPS \"" + options_.model + "\" serial " + options_.serial + " on " +
         pty_.slavePath() + "; answers at " + SimOptions::joinInts(model_.speeds()));
    if (!model_.activeAlarms().empty())
        note("alarms active at start: " + SimOptions::joinInts(model_.activeAlarms()));
    if (control_.listening()) note("control socket " + options_.controlPath);
    return true;
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
        pending_.push_back({now + delayMs_, XcpFrameCodec::encodeReplyFrames(reply.block, reply.data, frameSize)});
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
      << " delay=" << delayMs_ << " garbage=" << (garbageNext_ ? "next" : "off") << " alarms="
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
               "speeds LIST | meter N VALUE | status | quit";
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
        fds.push_back({pty_.masterFd(), POLLIN, 0});
        size_t inputIndex = fds.size();
        if (inputFd_ >= 0) fds.push_back({inputFd_, POLLIN, 0});
        size_t controlStart = fds.size();
        control_.addPollFds(&fds);

        int timeout = 100;
        {
            std::lock_guard<std::mutex> lock(mu_);
            if (!pending_.empty()) {
                long wait = pending_.front().dueMs - nowMs();
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
            checkSpeed();
            if (rc > 0 && fds[1].revents) readTerminal(now);
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
    return 0;
}

}  // namespace upssim
