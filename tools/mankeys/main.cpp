// kestrava-mankeys: writes the kestrava.ini(5) manual page from its
// template, replacing the marker lines with the table of configuration keys
// (config/ConfigKeys), so that the page lists exactly the keys the daemon
// knows. Run by the build; not installed.
//
//   kestrava-mankeys TEMPLATE OUTPUT
//
// A template line "@KEYS Kestrava.ini@" or "@KEYS Membercnt.cfg@" becomes
// one .TP entry per key of that file; every other line is copied as it is.
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>

#include "config/ConfigKeys.h"

namespace {

const char* const kProgram = "kestrava-mankeys";

// Text for roff: a backslash is printed as one, and a line never starts
// with a control character.
std::string roff(const std::string& text)
{
    std::string out;
    for (char c : text)
        out += c == '\\' ? std::string("\\e") : std::string(1, c);
    if (!out.empty() && (out[0] == '.' || out[0] == '\''))
        out.insert(0, "\\&");
    return out;
}

// "1 to 4", kept on one line.
std::string slots(const ConfigKey& key)
{
    return std::to_string(key.firstIndex) + "\\~to\\~" + std::to_string(key.lastIndex);
}

void entries(std::ostream& out, const std::string& file)
{
    for (const ConfigKey* k = ConfigKeys::begin(); k != ConfigKeys::end(); ++k) {
        if (file != k->file)
            continue;
        out << ".TP\n";
        out << ".B " << roff(ConfigKeys::displayName(*k)) << "\n";
        out << roff(k->meaning) << "\n.br\n";
        out << "Role: " << (k->role == KeyRole::Both ? "controller and member" : ConfigKeys::roleName(k->role))
            << ". Unit: " << roff(k->unit) << (k->firstIndex > 0 ? ". Slots n: " + slots(*k) : std::string())
            << ".\n.br\n";
        out << "Absent or empty: " << roff(k->absent) << ".\n";
    }
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 3) {
        fprintf(stderr, "usage: %s TEMPLATE OUTPUT\n", kProgram);
        return 2;
    }
    std::ifstream in(argv[1]);
    if (!in) {
        fprintf(stderr, "%s: cannot read %s\n", kProgram, argv[1]);
        return 1;
    }
    std::ostringstream page;
    std::string line;
    int markers = 0;
    while (std::getline(in, line)) {
        if (line == std::string("@KEYS ") + ConfigKeys::kConfigFile + "@" ||
            line == std::string("@KEYS ") + ConfigKeys::kMemberFile + "@") {
            entries(page, line.substr(6, line.size() - 7));
            ++markers;
        } else {
            page << line << "\n";
        }
    }
    if (markers == 0) {
        fprintf(stderr, "%s: %s has no \"@KEYS <file>@\" line\n", kProgram, argv[1]);
        return 1;
    }
    // Written beside the target and renamed over it: a failed run never
    // leaves half a page for the install to pick up.
    const std::string temp = std::string(argv[2]) + ".tmp";
    {
        std::ofstream out(temp, std::ios::trunc);
        out << page.str();
        out.close();
        if (!out) {
            fprintf(stderr, "%s: cannot write %s\n", kProgram, temp.c_str());
            std::remove(temp.c_str());
            return 1;
        }
    }
    if (std::rename(temp.c_str(), argv[2]) != 0) {
        fprintf(stderr, "%s: cannot rename %s to %s\n", kProgram, temp.c_str(), argv[2]);
        std::remove(temp.c_str());
        return 1;
    }
    return 0;
}
