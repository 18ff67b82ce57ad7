// The member table: slots, the member and status files (byte for byte, atomic replacement), the
// head-of-line receive queue and reply timers.
#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <future>
#include <string>
#include <vector>

#include "control/StCTrl.h"
#include "ipc/IpcData.h"
#include "tests/fakes/EventRecords.h"
#include "tests/fakes/FailingFileSystem.h"
#include "tests/fakes/ManualClock.h"
#include "tests/fakes/TempDir.h"

namespace {
using V = std::vector<std::string>;
using Ints = std::vector<int>;

// A controller core, a temporary home and a member table working in it.
struct Rig {
    ManualClock clock;
    StCTrl core{&clock};
    TempDir dir{"ipcdata"};
    IpcData table;
    explicit Rig(FileSystem* fs = nullptr) : table(core, dir.path(), dir.path(), fs) {}
    std::string membInfo() const { return dir.read("MembInfo.dat"); }
    std::string status() const { return dir.read("membCommInfo.tmp"); }
    DUP_MEMB_INFO member(int slot) { DUP_MEMB_INFO m; return table.GetMembInfo(slot, &m), m; }
    int add(const std::string& id, const std::string& addr, int port)
    {
        return table.InitMember(addr, port, id, false, ThCtrlSlot0, SqNew, nullptr);
    }
};

std::string text(const char* field, size_t size = 32) { return std::string(field, strnlen(field, size)); }

// A temporary file left behind shows as one file too many.
long fileCount(const std::string& dir)
{
    return std::distance(std::filesystem::directory_iterator(dir), std::filesystem::directory_iterator());
}

IPC_DATA_REC received(int msgNo, const std::string& peer)
{
    IPC_DATA_REC rec{};
    rec.msg.msgNo = static_cast<uint8_t>(msgNo);
    return std::strncpy(rec.name, peer.c_str(), sizeof rec.name - 1), rec;
}

IPC_DATA_RET timerBlock(const std::string& peer, int awaited, int handle = 0, int value = 0)
{
    IPC_DATA_RET r{};
    std::strncpy(r.peerName, peer.c_str(), sizeof r.peerName - 1);
    r.msgNo = static_cast<uint8_t>(r.awaited = awaited);
    r.handle = handle, r.value = value, r.timeOut = 10;
    return r;
}

TEST(IpcDataMembers, LoadedMembersFillSlotsInFileOrderAndFreedSlotsAreReusedLowestFirst)
{
    Rig r;
    const std::string longName(60, 'n');
    // Hand-edited: a member with a control character or a bad port is skipped, CR LF line ends are
    // accepted, reading stops at an empty ID.
    ASSERT_TRUE(r.dir.write("MembInfo.dat", "zeta\nhost-z\n10.0.0.3\n4000\n"
                                            "b\nna\tme\n10.0.0.2\n4001\n"
                                            "alpha\n" + longName + "\n10.0.0.1\n4001\n"
                                            "c\nname\n10.0.0.3\n70000\n"
                                            "@ctl\r\nhost-c\r\n10.0.0.2\r\n3069\r\n"
                                            "\nafter\nthe\nend\n"));
    EXPECT_EQ(r.table.LoadMembInfo(), 3);
    EXPECT_EQ((V{text(r.member(1).memberId), text(r.member(2).memberId), text(r.member(3).memberId),
                 text(r.member(3).address), text(r.member(4).memberId), text(r.member(2).name, kMembNameSize)}),
              (V{"zeta", "alpha", "@ctl", "10.0.0.2", "", longName.substr(0, 50)}));

    // A known ID is updated in place (0); new ones take the lowest free slot.
    char extra[] = "x";
    EXPECT_EQ(r.table.InitMember("10.0.0.9", 4100, "zeta", true, 9, SqMoved, extra), 0);
    EXPECT_EQ((Ints{r.member(1).port, r.member(1).status}), (Ints{4100, MembNotActive})) << "the status is kept";
    for (int i = 4; i <= IpcData::kMaxMembers; ++i)
        ASSERT_EQ(r.add("m" + std::to_string(i), "10.1.0." + std::to_string(i), 5000 + i), i);
    EXPECT_EQ(r.add("one-too-many", "10.2.0.1", 6000), -1);

    // Deleting twice finds nothing the second time.
    EXPECT_EQ((Ints{r.table.DeleteMember("m20", 0), r.table.DeleteMember("m7", 0), r.table.DeleteMember("m7", 0)}),
              (Ints{20, 7, 0}));
    EXPECT_EQ((Ints{r.add("new-a", "10.3.0.1", 6001), r.add("new-b", "10.3.0.2", 6002)}), (Ints{7, 20}));

    // Active members come out in member-ID order, whatever their slots.
    DUP_MEMB_INFO m;
    for (const char* id : {"m30", "alpha", "new-a"}) {
        MemberFiles::setField(m.memberId, sizeof m.memberId, id);
        ASSERT_GT(r.table.SetMembStatus(&m, MembActive, false), 0) << id;
    }
    std::vector<DUP_MEMB_INFO> detected(IpcData::kMaxMembers);
    ASSERT_EQ(r.table.GetDetectMember(detected.data()), 3);
    EXPECT_EQ((V{text(detected[0].memberId), text(detected[1].memberId), text(detected[2].memberId)}),
              (V{"alpha", "m30", "new-a"}));
}

TEST(IpcDataFiles, StatusFileIsRewrittenByteExactOnlyForKnownMembersWithoutControlCharacters)
{
    Rig r;
    // Port 3068 is deliberately not listed, " KSV0001" registered by identity, "1.2.3" too short to count.
    ASSERT_EQ((Ints{r.add("m1", "192.168.1.10", 3068), r.add("m2", "192.168.1.11", 3069), r.add(" KSV0001", "10.1.2.3", 5000),
                    r.add("m4", "1.2.3", 6000)}), (Ints{1, 2, 3, 4}));
    // Texts with control characters never reach the table; an empty ID could not be saved.
    DUP_MEMB_INFO m1 = r.member(1);
    EXPECT_EQ((Ints{r.add("bad\nid", "10.0.0.2", 4000), r.add("bad-addr", "10.0.0.3\r\nPort = 1", 4000),
                    r.add("", "10.0.0.4", 4000), r.table.SetMembNameString(&m1, "host\nStatus = Active"),
                    r.table.SetMembIPAddr(&m1, "10.0.0.1\x1b")}), Ints(5, -1));
    EXPECT_EQ(text(r.member(1).name, kMembNameSize) + "|" + text(r.member(1).address, kMembAddrSize), "|192.168.1.10");

    DUP_MEMB_INFO nobody{};
    std::strcpy(nobody.memberId, "nobody");
    EXPECT_EQ(r.table.SetMembStatus(&nobody, MembActive, false), 0);
    EXPECT_FALSE(std::filesystem::exists(r.dir.file("membCommInfo.tmp")));
    DUP_MEMB_INFO m3 = r.member(3), m = r.member(2);
    EXPECT_EQ((Ints{r.table.SetMembNameString(&m3, "gamma"), r.table.SetMembNameString(&m, "beta"),
                    r.table.SetMembStatus(&m, MembActive, false)}), (Ints{3, 2, 2}));
    const std::string third = " 3 Name = gamma" + std::string(45, ' ') + "Status = No Entry\n"
                              "   IP = *10.1.2.3         Port = 5000\n";
    EXPECT_EQ(r.status(), " 2 Name = beta" + std::string(46, ' ') + "Status = Active\n"
                          "   IP =  192.168.1.11     Port = 3069\n" + third);
    // A deleted member leaves the table shown to the operator.
    EXPECT_EQ(r.table.DeleteMember("m2", 0), 2);
    EXPECT_EQ(r.status(), third);
    EXPECT_EQ(fileCount(r.dir.path()), 1) << "no temporary file is left";
}

TEST(IpcDataFiles, MemberFileRoundTripsInIdOrderAndAFailedSaveKeepsTheOldFile)
{
    FailingFileSystem disk;
    Rig r(&disk);
    ASSERT_EQ((Ints{r.add("m2", "10.0.0.2", 4002), r.add("@ctl", "10.0.0.9", 4009), r.add(" KSV0001", "10.0.0.7", 4007),
                    r.add("m10", "10.0.0.10", 4010)}), (Ints{1, 2, 3, 4}));
    DUP_MEMB_INFO m = r.member(4);
    r.table.SetMembNameString(&m, "host ten");
    DUP_MEMB_INFO unknown{};
    std::strcpy(unknown.memberId, "asked-for");
    r.table.SetMembSq(&unknown, SqNew, 1); // enters the ID in the index with slot 0

    ASSERT_EQ(r.table.SaveMembInfo(), 1);
    const std::string saved = " KSV0001\n\n10.0.0.7\n4007\n@ctl\n\n10.0.0.9\n4009\n"
                              "m10\nhost ten\n10.0.0.10\n4010\nm2\n\n10.0.0.2\n4002\n";
    EXPECT_EQ(r.membInfo(), saved);

    Rig again;
    ASSERT_TRUE(again.dir.write("MembInfo.dat", saved));
    IpcData noPath(again.core, "", again.dir.path()); // no "Path": the home directory, never "/"
    EXPECT_EQ((Ints{again.table.LoadMembInfo(), noPath.LoadMembInfo()}), (Ints{4, 4}));
    EXPECT_EQ(text(again.member(3).name, kMembNameSize), "host ten");

    EXPECT_EQ(r.table.DeleteMember("@ctl", 0), 2);
    for (const char* call : {"open", "write", "fsync", "rename"}) {
        disk.failing = call;
        EXPECT_TRUE(r.table.SaveMembInfo() == 0 && r.membInfo() == saved) << call;
    }
    disk.failing = "";
    EXPECT_EQ(fileCount(r.dir.path()), 2) << "no temporary file is left beside MembInfo.dat and membCommInfo.tmp";
    ASSERT_EQ(r.table.SaveMembInfo(), 1);
    EXPECT_EQ(r.membInfo(), " KSV0001\n\n10.0.0.7\n4007\nm10\nhost ten\n10.0.0.10\n4010\nm2\n\n10.0.0.2\n4002\n");
}

TEST(IpcDataQueues, OnlyTheOldestReceivedRecordIsTakenAndItsOwnerGetsItOnceItIsAtTheHead)
{
    Rig r;
    IPC_DATA_REC rec;
    EXPECT_EQ(r.table.getRvData(&rec, 1), 0) << "an empty queue answers at once";
    DG2MessageType msg{};
    char from[] = "10.0.0.1-a-name-longer-than-thirty-two-bytes";
    for (int i : {1, 2, 2}) {
        msg.msgNo = static_cast<uint8_t>(i == 1 ? 35 : 141);
        ASSERT_EQ(r.table.setRvData(&msg, IPC_DST_REPLY, 4000 + i, from, i), 1);
    }
    EXPECT_EQ(r.table.getRvData(&rec, 2), 0) << "thread 1's record holds up the queue";

    // Thread 2 waits; it gets its record once thread 1 has taken the head.
    auto two = std::async(std::launch::async, [&] {
        IPC_DATA_REC mine;
        return r.table.getRvData(&mine, 2) == 1 ? int(mine.msg.msgNo) : -1;
    });
    ASSERT_EQ(r.table.getRvData(&rec, 1), 1);
    EXPECT_EQ(std::to_string(rec.msg.msgNo) + " " + std::to_string(rec.value) + " " + text(rec.name, sizeof rec.name),
              "35 4001 " + std::string(from, 32));
    ASSERT_EQ(two.wait_for(std::chrono::seconds(10)), std::future_status::ready);
    EXPECT_EQ(two.get(), 141);
    EXPECT_EQ(r.table.receiveQueued(), 1u);
}

TEST(IpcDataTimers, CancelStopsTheMatchingTimerOnlyThroughTheControllerCore)
{
    Rig r;
    IPC_DATA_RET blocks[] = {timerBlock("10.0.0.5", 35), timerBlock("10.0.0.6", 35, 77), timerBlock("10.0.0.5", 140),
                             timerBlock("@ctl", 230, 0, 7), timerBlock("@ctl2", 230, 0, 8)};
    blocks[4].msgNo = 181; // a reply that waits for another message
    for (int i = 0; i < 5; ++i)
        r.table.SetTimerInfo(30 + i, &blocks[i]);
    int found = -1;
    EXPECT_EQ(r.table.GetTimerInfo(99, &found).awaited, 0);
    EXPECT_EQ(r.table.timersPending(), 5u) << "looking up an unknown id stores nothing";

    IPC_DATA_REC rec = received(35, "10.0.0.6"), none = received(141, "10.0.0.5"); // nothing waits for 141
    EXPECT_EQ((Ints{r.table.CancelTM(&rec, 0), r.table.CancelTM(&rec, 0), r.table.CancelTM(&none, 0)}),
              (Ints{1, 0, 0})) << "only one entry matched";
    EXPECT_EQ(drainDescribed(r.core), V{"0:EvTimerStop(102):77"});

    rec = received(230, "10.9.9.9"); // the "@" form, picked by its value
    EXPECT_EQ(r.table.CancelTM(&rec, 8), 1);
    EXPECT_EQ(drainDescribed(r.core), V{"0:EvTimerStop(102):34"});
    EXPECT_EQ(r.table.GetTimerInfo(33, &found).awaited * found, 230);

    EXPECT_EQ(r.table.CancelMembTM("10.0.0.5"), 2);
    EXPECT_EQ(drainDescribed(r.core), (V{"0:EvTimerStop(102):30", "0:EvTimerStop(102):32"}));
    EXPECT_EQ(r.table.timersPending(), 1u);
}

} // namespace
