#include "tools/console/MemberList.h"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>

namespace {

const char* const kTable = "membCommInfo.tmp";

// One table line as the terminal should show it: control characters as '?'.
std::string printable(const std::string& line)
{
    std::string out = line;
    for (char& c : out)
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f)
            c = '?';
    return out;
}

} // namespace

MemberList::Summary MemberList::summarise(const std::string& table)
{
    Summary s;
    std::istringstream in(table);
    std::string line;
    while (std::getline(in, line)) {
        // A member's first line: slot number, "Name = ...", "Status = ...".
        const std::string::size_type status = line.find("Status = ");
        if (line.find("Name = ") == std::string::npos || status == std::string::npos)
            continue;
        ++s.members;
        std::string text = line.substr(status + 9);
        while (!text.empty() && (text.back() == ' ' || text.back() == '\r'))
            text.pop_back();
        if (text == "Active")
            ++s.active;
    }
    return s;
}

int MemberList::print(const std::string& homeDir, FILE* out, std::string* error)
{
    std::string dir = homeDir;
    if (!dir.empty() && dir.back() != '/')
        dir += '/';
    const std::string path = dir + kTable;
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        if (errno == ENOENT) {
            fprintf(out, "No shutdown member has registered with the controller in %s (no %s yet).\n",
                    dir.empty() ? "." : dir.c_str(), kTable);
            return 0;
        }
        *error = "cannot read " + path + ": " + strerror(errno);
        return 1;
    }
    std::ostringstream text;
    text << in.rdbuf();
    const std::string table = text.str();
    std::istringstream lines(table);
    std::string line;
    while (std::getline(lines, line))
        fprintf(out, "%s\n", printable(line).c_str());
    const Summary s = summarise(table);
    fprintf(out, "%d member%s, %d active: %s\n", s.members, s.members == 1 ? "" : "s", s.active,
            s.active == 0 ? "no host will be told of a power failure."
                          : "the active hosts are told of a power failure.");
    return 0;
}
