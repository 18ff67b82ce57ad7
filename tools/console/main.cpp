// kestrava-console: the operator's command-line client of the daemon's
// console port. Checks that the daemon answers, changes configuration keys
// of the running daemon, shows its status (also as JSON, with an exit
// status for monitoring) and lists the shutdown members registered with it.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "config/FileMap.h"
#include "tools/console/ConsoleClient.h"
#include "tools/console/MemberList.h"

namespace {

const char* const kProgram = "kestrava-console";

void usage(FILE* out)
{
    fprintf(out,
            "Usage: %s [--port N] [--config FILE] [--timeout S] ping\n"
            "       %s [--port N] [--config FILE] [--timeout S] set KEY VALUE\n"
            "       %s [--port N] [--config FILE] [--timeout S] status [--json]\n"
            "       %s (--config FILE | --home DIR) members\n"
            "\n"
            "Talks to the running Kestrava daemon on this machine (127.0.0.1) through\n"
            "its console port.\n"
            "\n"
            "Commands:\n"
            "  ping           check that the daemon answers\n"
            "  set KEY VALUE  set the configuration key KEY to VALUE in the running\n"
            "                 daemon, which also writes it to its Kestrava.ini when the\n"
            "                 key already stands there (otherwise the value holds only\n"
            "                 until the daemon restarts). Changes of \"DumpLogRate\",\n"
            "                 \"AccessCode1\" and \"ShutdownDelay1\" act at once.\n"
            "                 Keys that run programs or name files or addresses\n"
            "                 (AppTermCommand1, Path, DeviceName, CuiAddress, ...) are\n"
            "                 refused unless the daemon's Kestrava.ini holds\n"
            "                 CuiAllowCommandKeys=1.\n"
            "  status         show the daemon's state: its role; the UPS (model, state,\n"
            "                 on utility or on battery, battery charge and runtime and\n"
            "                 meters as far as the UPS reports them, the active alarms by\n"
            "                 name); a running countdown (wink, countdown, application\n"
            "                 end, shutdown: time left and the commands that will run);\n"
            "                 on a controller its members, on a member its controllers.\n"
            "                 Changes nothing. With --json: one JSON object instead.\n"
            "  members        list the shutdown members registered with the controller\n"
            "                 daemon and their state (\"Active\" members are told of a\n"
            "                 power failure), from membCommInfo.tmp in the daemon's home\n"
            "                 directory (that of --config FILE, or --home DIR)\n"
            "\n"
            "Options:\n"
            "  --port N       the daemon's console port\n"
            "  --config FILE  the daemon's Kestrava.ini; the port is its \"CuiPort\"\n"
            "                 value (used when --port is not given)\n"
            "  --home DIR     the daemon's home directory (members only)\n"
            "  --timeout S    seconds to wait for the connection and the answer\n"
            "                 (default 5)\n"
            "  --json         status only: print one JSON object (keys in the manual)\n"
            "  --help         show this text\n"
            "\n"
            "Exit status: 0 done, 1 the daemon could not be reached or did not\n"
            "answer, 2 wrong usage or unreadable configuration, 3 the daemon refused\n"
            "the key.\n"
            "Exit status of status (a monitoring check): 0 the UPS is on utility and\n"
            "communicating with no alarm and no countdown running (on a member: every\n"
            "followed controller Active with power OK and no alarm); 1 anything else\n"
            "(on battery, an alarm, the UPS or a controller not communicating, a\n"
            "countdown); 2 the daemon could not be reached or gave no status, or\n"
            "wrong usage. Alarms of level 1 (what the UPS is doing, such as\n"
            "\"Battery charging\") are shown as notices and do not count.\n",
            kProgram, kProgram, kProgram, kProgram);
}

int usageError(const std::string& message)
{
    fprintf(stderr, "%s: %s\n", kProgram, message.c_str());
    fprintf(stderr, "Try '%s --help' for more information.\n", kProgram);
    return 2;
}

// A decimal number in [low, high], or -1.
long number(const char* text, long low, long high)
{
    if (!text || !*text)
        return -1;
    char* end = nullptr;
    long v = strtol(text, &end, 10);
    if (*end != 0 || v < low || v > high)
        return -1;
    return v;
}

} // namespace

int main(int argc, char** argv)
{
    long port = -1;
    long timeout = 5;
    std::string config;
    std::string home;
    std::vector<std::string> words;
    bool json = false;

    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        if (arg == "--help" || arg == "-h") {
            usage(stdout);
            return 0;
        }
        if (arg == "--port" || arg == "--config" || arg == "--timeout" || arg == "--home") {
            if (i + 1 >= argc)
                return usageError("option " + arg + " needs a value");
            const char* value = argv[++i];
            if (arg == "--port") {
                port = number(value, 1, 65535);
                if (port < 0)
                    return usageError(std::string("invalid port \"") + value + "\" (1 to 65535)");
            } else if (arg == "--timeout") {
                timeout = number(value, 1, 3600);
                if (timeout < 0)
                    return usageError(std::string("invalid timeout \"") + value + "\" (1 to 3600 seconds)");
            } else if (arg == "--home") {
                home = value;
            } else {
                config = value;
            }
            continue;
        }
        if (arg == "--json") {
            json = true;
            continue;
        }
        if (arg.size() > 2 && arg.compare(0, 2, "--") == 0)
            return usageError("unknown option " + arg);
        words.push_back(arg);
    }

    if (words.empty())
        return usageError("no command given (ping, set, status or members)");
    if (json && words[0] != "status")
        return usageError("--json goes with status only");
    const std::string command = words[0];
    if (command == "ping") {
        if (words.size() != 1)
            return usageError("ping takes no arguments");
    } else if (command == "set") {
        if (words.size() != 3)
            return usageError("set needs KEY and VALUE");
        std::string error;
        if (ConsoleClient::checkSetArguments(words[1], words[2], &error) != 0)
            return usageError(error);
    } else if (command == "status") {
        if (words.size() != 1)
            return usageError("status takes no arguments");
    } else if (command == "members") {
        if (words.size() != 1)
            return usageError("members takes no arguments");
        if (home.empty() && config.empty())
            return usageError("give the daemon's home directory with --home DIR or its Kestrava.ini with --config FILE");
        if (home.empty()) {
            const std::string::size_type slash = config.rfind('/');
            home = slash == std::string::npos ? std::string() : config.substr(0, slash + 1);
        }
        std::string error;
        if (MemberList::print(home, stdout, &error) != 0) {
            fprintf(stderr, "%s: %s\n", kProgram, error.c_str());
            return 1;
        }
        return 0;
    } else {
        return usageError("unknown command \"" + command + "\" (ping, set, status or members)");
    }

    if (port < 0) {
        if (config.empty())
            return usageError("give the console port with --port N or the daemon's Kestrava.ini with --config FILE");
        FileMap ini(config);
        if (!ini.isLoaded()) {
            fprintf(stderr, "%s: cannot read %s\n", kProgram, config.c_str());
            return 2;
        }
        std::string value = ini.getConf("CuiPort");
        port = number(value.c_str(), 1, 65535);
        if (port < 0) {
            fprintf(stderr, "%s: %s has no valid \"CuiPort\" (found \"%s\")\n", kProgram, config.c_str(),
                    value.c_str());
            return 2;
        }
    }

    ConsoleClient client(static_cast<int>(port), static_cast<int>(timeout));
    std::string error;
    if (command == "ping") {
        if (client.ping(&error) != 0) {
            fprintf(stderr, "%s: %s\n", kProgram, error.c_str());
            return 1;
        }
        printf("%s: daemon answered\n", kProgram);
        return 0;
    }
    if (command == "status") {
        StatusReport::Items items;
        if (client.status(&items, &error) != 0) {
            fprintf(stderr, "%s: %s\n", kProgram, error.c_str());
            return StatusReport::ExitUnreachable;
        }
        const int code = StatusReport::exitCode(items);
        if (code == StatusReport::ExitUnreachable) {
            fprintf(stderr, "%s: the daemon published no status (no role in its answer)\n", kProgram);
            return code;
        }
        const std::string out = json ? StatusReport::json(items) : StatusReport::text(items);
        fwrite(out.data(), 1, out.size(), stdout);
        return code;
    }
    const std::string& key = words[1];
    const std::string& value = words[2];
    const int result = client.set(key, value, &error);
    if (result != 0) {
        fprintf(stderr, "%s: %s\n", kProgram, error.c_str());
        return result;
    }
    printf("%s: %s set to %s\n", kProgram, key.c_str(), value.c_str());
    return 0;
}
