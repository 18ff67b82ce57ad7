// kestrava-upssim: a simulated XCP UPS on a pseudo-terminal, for trying
// the daemon without hardware and for the integration tests.
#include <errno.h>
#include <signal.h>
#include <string.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include "tools/upssim/SimOptions.h"
#include "tools/upssim/UpsSimulator.h"

namespace {

upssim::UpsSimulator* gSimulator = nullptr;

void onStopSignal(int) {
    if (gSimulator) gSimulator->requestStop();
}

void installSignals() {
    struct sigaction sa;
    memset(&sa, 0, sizeof sa);
    sa.sa_handler = onStopSignal;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGTERM, &sa, nullptr);
    sigaction(SIGINT, &sa, nullptr);
    // A vanished control client or a background start from a shell must
    // not stop the simulator.
    signal(SIGPIPE, SIG_IGN);
    signal(SIGTTIN, SIG_IGN);
    signal(SIGTTOU, SIG_IGN);
}

}  // namespace

int main(int argc, char** argv) {
    const char* program = "kestrava-upssim";
    upssim::SimOptions options;
    std::string error;
    if (!upssim::SimOptions::parse(argc, argv, &options, &error)) {
        std::fprintf(stderr, "%s: %s\n", program, error.c_str());
        return 2;
    }
    if (options.help) {
        std::fputs(upssim::SimOptions::usage(program).c_str(), stdout);
        return 0;
    }

    upssim::UpsSimulator simulator(options);
    gSimulator = &simulator;
    installSignals();
    simulator.setNoteStream(stderr);
    if (!simulator.start(&error)) {
        std::fprintf(stderr, "%s: %s\n", program, error.c_str());
        gSimulator = nullptr;
        return 1;
    }
    std::printf("%s\n", simulator.devicePath().c_str());
    std::fflush(stdout);

    if (!options.pidFile.empty()) {
        FILE* f = std::fopen(options.pidFile.c_str(), "w");
        if (!f) {
            std::fprintf(stderr, "%s: cannot write pid file %s: %s\n", program,
                         options.pidFile.c_str(), strerror(errno));
            gSimulator = nullptr;
            return 1;
        }
        std::fprintf(f, "%ld\n", static_cast<long>(getpid()));
        std::fclose(f);
    }

    simulator.setCommandInput(STDIN_FILENO, stdout);
    int rc = simulator.run();
    gSimulator = nullptr;
    if (!options.pidFile.empty()) unlink(options.pidFile.c_str());
    return rc;
}
