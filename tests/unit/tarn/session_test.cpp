// SPDX-License-Identifier: Apache-2.0
#include "tarn/internal/session.h"

#include <fstream>
#include <limits>

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "slate/file.h"
#include "slate/provider.h"
#include "support/environment.h"
#include "support/log_capture.h"
#include "support/scratch_folder.h"
#include "tarn/exception.h"
#include "tarn/internal/server/temporary_file_list.h"
#include "unit/tarn/thrown.h"

namespace {
using namespace tarn;
using namespace tarn_internal;
using namespace tarn_test;
namespace fs = std::filesystem;

constexpr std::size_t threshold = 10485760;
constexpr std::size_t uuid_digits = 32;

std::string content(const fs::path& file)
{
    return slate::slurp_file<std::string>(file.string(), std::ios::binary);
}

bool is_alphanumeric(const std::string& text)
{
    return std::all_of(text.begin(), text.end(), [](unsigned char c) { return std::isalnum(c) != 0; });
}

// --- Names of temporary files -------------------------------------------------------------------------

class ATemporaryPath : public testing::Test {
protected:
    ScratchFolder folder;
};

TEST_F(ATemporaryPath, LiesHiddenInTheSystemsFolderForTemporaryFiles)
{
    const TemporaryFolderVariable variable(folder.path());

    const TemporaryPath temporary;

    EXPECT_EQ(temporary.prefix, ".");
    EXPECT_EQ(temporary.path.parent_path(), folder.path());
    const std::string name = temporary.path.filename().string();
    EXPECT_EQ(name.size(), 1 + uuid_digits);
    EXPECT_TRUE(name.starts_with('.'));
    EXPECT_TRUE(is_alphanumeric(name.substr(1))) << name;
}

TEST_F(ATemporaryPath, CreatesNothing)
{
    const TemporaryFolderVariable variable(folder.path());

    const TemporaryPath in_folder;
    const TemporaryPath beside(folder.path() / "some" / "file");

    EXPECT_TRUE(fs::is_empty(folder.path()));
}

TEST_F(ATemporaryPath, IsAnotherOneEachTime)
{
    EXPECT_NE(TemporaryPath().path, TemporaryPath().path);
    EXPECT_NE(TemporaryPath("/a/b").path, TemporaryPath("/a/b").path);
}

TEST_F(ATemporaryPath, LiesHiddenBesideItsDestinationAndIsNamedAfterIt)
{
    const TemporaryPath temporary(fs::path("/a/b/file.txt"));

    EXPECT_EQ(temporary.prefix, ".file.txt_");
    EXPECT_EQ(temporary.path.parent_path(), "/a/b");
    const std::string name = temporary.path.filename().string();
    EXPECT_EQ(name.size(), temporary.prefix.size() + uuid_digits);
    EXPECT_TRUE(name.starts_with(".file.txt_"));
    EXPECT_TRUE(is_alphanumeric(name.substr(temporary.prefix.size()))) << name;
}

TEST_F(ATemporaryPath, LiesInADestinationThatEndsInASlash)
{
    const TemporaryPath temporary(fs::path("/a/b/"));

    EXPECT_EQ(temporary.prefix, "._");
    EXPECT_EQ(temporary.path.parent_path(), "/a/b");
    EXPECT_TRUE(temporary.path.filename().string().starts_with("._"));
}

TEST_F(ATemporaryPath, RefusesARelativeDestination)
{
    for (const char* destination : {"relative/name", "name", ".hidden", ""}) {
        EXPECT_EQ(logged_and_thrown<tarn::Exception>([&] { TemporaryPath{fs::path(destination)}; }),
                  "The destination for the temporary file must be an absolute path!")
            << destination;
    }
}

TEST_F(ATemporaryPath, RefusesAHiddenDestination)
{
    EXPECT_EQ(logged_and_thrown<tarn::Exception>([] { TemporaryPath{fs::path("/a/.hidden")}; }),
              "The destination for the temporary file cannot be a hidden file!");
}

TEST_F(ATemporaryPath, IsNotMadeWithoutAFolderForTemporaryFiles)
{
    const TemporaryFolderVariable variable(folder.path() / "missing");

    EXPECT_THROW(TemporaryPath(), fs::filesystem_error);
}

// --- The data of a transfer ---------------------------------------------------------------------------

class ATransferBuffer : public testing::Test {
protected:
    ScratchFolder folder;
    TemporaryPath temporary{folder.path() / "body"};
    const fs::path file = temporary.path;
};

TEST_F(ATransferBuffer, ReservesItsMemoryUpFront)
{
    const TransferBuffer buffer(temporary);

    EXPECT_TRUE(buffer.data.empty());
    EXPECT_GE(buffer.data.capacity(), threshold);
    EXPECT_FALSE(buffer.keep_file);
    EXPECT_FALSE(fs::exists(file));
}

TEST_F(ATransferBuffer, AppendsItsDataToTheFileAndEmptiesItself)
{
    const TransferBuffer buffer(temporary);

    buffer.data = "one,";
    buffer.flush();
    EXPECT_TRUE(buffer.data.empty());
    EXPECT_EQ(content(file), "one,");

    buffer.data = std::string("two\0\r\n", 6);
    buffer.flush();
    EXPECT_TRUE(buffer.data.empty());
    EXPECT_EQ(content(file), std::string("one,two\0\r\n", 10));
}

TEST_F(ATransferBuffer, MakesTheFoldersThatItsFileNeeds)
{
    const TemporaryPath deep(folder.path() / "a" / "b" / "body");
    const TransferBuffer buffer(deep);

    buffer.data = "x";
    buffer.flush();

    EXPECT_EQ(content(deep.path), "x");
}

TEST_F(ATransferBuffer, SaysWhichFileCannotBeOpened)
{
    const TransferBuffer buffer(temporary);
    buffer.data = "x";
    fs::create_directory(file);

    EXPECT_EQ(logged_and_thrown<tarn::Exception>([&] { buffer.flush(); }),
              "flush failed, failed to open: " + file.string());
}

TEST_F(ATransferBuffer, CannotOpenItsFileInAFolderThatCannotBeMade)
{
    std::ofstream(folder.path() / "file") << "no folder";
    const TemporaryPath below_file(folder.path() / "file" / "folder" / "body");
    const TransferBuffer buffer(below_file);

    EXPECT_EQ(logged_and_thrown<tarn::Exception>([&] { buffer.flush(); }),
              "flush failed, failed to open: " + below_file.path.string());
}

TEST_F(ATransferBuffer, TellsOfAFullDiskInTheMiddleOfAWrite)
{
    const TransferBuffer buffer(temporary);
    const FileSizeLimit limit(100'000);
    buffer.data.assign(1 << 20, 'x');

    EXPECT_EQ(logged_and_thrown<tarn::Exception>([&] { buffer.flush(); }),
              "flush failed, out of disk space?");
}

TEST_F(ATransferBuffer, TellsOfAFullDiskThatOnlyClosingTheFileFinds)
{
    const TransferBuffer buffer(temporary);
    const FileSizeLimit limit(0);
    buffer.data = "small enough for the stream to keep until it is closed";

    EXPECT_EQ(logged_and_thrown<tarn::Exception>([&] { buffer.flush(); }),
              "flush failed, out of disk space?");
}

TEST_F(ATransferBuffer, HandsOverWhatNeverWasInAFileWithoutACopy)
{
    const TransferBuffer buffer(temporary);
    buffer.data.append("the body");
    const char* const memory = buffer.data.data();

    std::string out = "what was there";
    buffer.read(&out);

    EXPECT_EQ(out, "the body");
    EXPECT_EQ(out.data(), memory);
    EXPECT_TRUE(buffer.data.empty());
    EXPECT_FALSE(fs::exists(file));
}

TEST_F(ATransferBuffer, HandsOverFileAndMemoryAsOneBody)
{
    const TransferBuffer buffer(temporary);
    buffer.data = "in the file, ";
    buffer.flush();
    buffer.data = "not yet";

    std::string out = "what was there, and is longer than what comes";
    buffer.read(&out);

    EXPECT_EQ(out, "in the file, not yet");
    EXPECT_TRUE(buffer.data.empty());
    EXPECT_EQ(content(file), "in the file, not yet");
}

TEST_F(ATransferBuffer, HandsOverNothingIfItGotNothing)
{
    const TransferBuffer buffer(temporary);

    std::string out = "what was there";
    buffer.read(&out);

    EXPECT_EQ(out, "");
}

TEST_F(ATransferBuffer, DeletesItsFileWhenItGoes)
{
    {
        const TransferBuffer buffer(temporary);
        buffer.data = "x";
        buffer.flush();
        ASSERT_TRUE(fs::exists(file));
    }
    EXPECT_FALSE(fs::exists(file));
}

TEST_F(ATransferBuffer, KeepsItsFilePrivate)
{
    const mode_t before = umask(0);
    const TransferBuffer buffer(temporary);
    buffer.data = "x";
    buffer.flush();
    umask(before);

    EXPECT_EQ(fs::status(file).permissions(), fs::perms(0600));
}

TEST_F(ATransferBuffer, WritesToNoFileThatItHasNotMade)
{
    const fs::path precious = folder.path() / "precious";
    std::ofstream(precious) << "precious";
    fs::create_symlink(precious, file);
    {
        const TransferBuffer buffer(temporary);
        buffer.data = "x";
        EXPECT_EQ(logged_and_thrown<tarn::Exception>([&] { buffer.flush(); }),
                  "flush failed, failed to open: " + file.string());
    }
    EXPECT_EQ(content(precious), "precious");

    fs::create_hard_link(precious, file);
    {
        const TransferBuffer buffer(temporary);
        buffer.data = "x";
        EXPECT_THROW(buffer.flush(), tarn::Exception);
    }
    EXPECT_EQ(content(precious), "precious");
}

TEST_F(ATransferBuffer, StaysWithItsFileIfAnotherOneTakesItsPlace)
{
    const fs::path precious = folder.path() / "precious";
    std::ofstream(precious) << "precious";
    const TransferBuffer buffer(temporary);
    buffer.data = "one,";
    buffer.flush();
    fs::remove(file);
    fs::create_symlink(precious, file);

    buffer.data = "two";
    buffer.flush();
    std::string out;
    buffer.read(&out);

    EXPECT_EQ(out, "one,two");
    EXPECT_EQ(content(precious), "precious");
}

TEST_F(ATransferBuffer, IsListedForAsLongAsItHasAFile)
{
    const auto list = std::make_shared<TemporaryFileList>(folder.path() / "list");
    {
        TransferBuffer buffer(temporary);
        buffer.list_in(list);
        EXPECT_FALSE(fs::exists(list->path()));

        buffer.data = "x";
        buffer.flush();
        buffer.data = "y";
        buffer.flush();
        EXPECT_EQ(content(list->path()), file.string() + "\n");
    }
    EXPECT_FALSE(fs::exists(list->path()));
}

TEST_F(ATransferBuffer, LeavesItsFileIfItIsToldTo)
{
    {
        TransferBuffer buffer(temporary);
        buffer.keep_file = true;
        buffer.data = "x";
        buffer.flush();
    }
    EXPECT_EQ(content(file), "x");
}

TEST_F(ATransferBuffer, GoesQuietlyWithoutAFile)
{
    const LogCapture log;
    {
        const TransferBuffer buffer(temporary);
    }
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(ATransferBuffer, LogsThatItsFileCannotBeDeletedAndGoes)
{
    fs::create_directories(file / "something in it");

    const LogCapture log;
    {
        const TransferBuffer buffer(temporary);
    }

    const auto lines = log.lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].level, slate::ErrorLevel);
    EXPECT_EQ(lines[0].text, "~TransferBuffer caught exception");
    EXPECT_EQ(lines[0].provider, "");
}

// --- Chunks -------------------------------------------------------------------------------------------

class AWriteSession : public testing::Test {
protected:
    ScratchFolder folder;
    WriteSession session{"some-id", slate::Minutes(15), TemporaryPath(folder.path() / "body")};
    const fs::path file = session.buffer.path.path;
};

TEST_F(AWriteSession, BeginsWithNothingAndExpectsChunkZero)
{
    EXPECT_EQ(session.id, "some-id");
    EXPECT_EQ(session.expires, slate::Minutes(15));
    EXPECT_EQ(session.buffer.data, "");
    EXPECT_EQ(session.next_chunk, 0u);
}

TEST_F(AWriteSession, ShowsItsExpiryUnderTheNameOfAPath)
{
    EXPECT_EQ(to_string(session), "WriteSession { id: some-id, path: 15min }");
    session.expires = slate::Milliseconds(3500);
    EXPECT_EQ(to_string(session), "WriteSession { id: some-id, path: 3.5s }");
}

TEST_F(AWriteSession, AddsChunksInTheirOrder)
{
    session.append("a", 0);
    session.append("b", 1);
    session.append("", 2);
    session.append("c", 3);

    EXPECT_EQ(session.buffer.data, "abc");
    EXPECT_EQ(session.next_chunk, 4u);
}

TEST_F(AWriteSession, AddsChunksWithoutANumberUncheckedAndCountsThem)
{
    session.append("a", std::nullopt);
    session.append("b", std::nullopt);
    session.append("c", 2);

    EXPECT_EQ(session.buffer.data, "abc");
    EXPECT_EQ(session.next_chunk, 3u);
}

TEST_F(AWriteSession, IgnoresTheChunkBeforeIfItComesAgain)
{
    session.append("a", 0);
    session.append("b", 1);
    session.append("B", 1);

    EXPECT_EQ(session.buffer.data, "ab");
    EXPECT_EQ(session.next_chunk, 2u);
}

TEST_F(AWriteSession, IgnoresTheGreatestNumberAtTheBeginning)
{
    session.append("a", std::numeric_limits<std::uint32_t>::max());

    EXPECT_EQ(session.buffer.data, "");
    EXPECT_EQ(session.next_chunk, 0u);
}

TEST_F(AWriteSession, RefusesAChunkThatIsTooFarAhead)
{
    session.append("a", 0);

    EXPECT_EQ(logged_and_thrown<MessageException>([&] { session.append("c", 2); }),
              "wrong chunk; expected 1 but got 2");
    EXPECT_EQ(session.buffer.data, "a");
    EXPECT_EQ(session.next_chunk, 1u);
}

TEST_F(AWriteSession, RefusesAChunkThatIsTooFarAheadWithStatus400AndWithoutAProvider)
{
    const LogCapture log;
    try {
        session.append("c", 4000000000);
        FAIL() << "not refused";
    }
    catch (const MessageException& error) {
        EXPECT_EQ(error.status, Status::BadRequest);
        EXPECT_STREQ(error.what(), "wrong chunk; expected 0 but got 4000000000");
    }
    EXPECT_EQ(log.lines().at(0).provider, "");
}

// Deliberate: only a gap ahead is refused.
TEST_F(AWriteSession, TakesAnOlderChunkAsIfItWereRight)
{
    for (std::uint32_t chunk = 0; chunk < 3; ++chunk)
        session.append(std::to_string(chunk), chunk);

    session.append("one again", 1);

    EXPECT_EQ(session.buffer.data, "012one again");
    EXPECT_EQ(session.next_chunk, 4u);
}

TEST_F(AWriteSession, CountsOnFromTheGreatestNumberToZero)
{
    session.next_chunk = std::numeric_limits<std::uint32_t>::max();

    session.append("last", std::numeric_limits<std::uint32_t>::max());
    EXPECT_EQ(session.next_chunk, 0u);
    session.append("first", 0);

    EXPECT_EQ(session.buffer.data, "lastfirst");
}

TEST_F(AWriteSession, KeepsTenMebibytesInMemoryAndCopiesEachChunkOnce)
{
    const char* const memory = session.buffer.data.data();
    const std::string chunk(1 << 20, 'x');

    for (int i = 0; i < 10; ++i)
        session.append(chunk, i);

    EXPECT_EQ(session.buffer.data.size(), threshold);
    EXPECT_EQ(session.buffer.data.data(), memory); // never moved, so nothing was copied a second time
    EXPECT_FALSE(fs::exists(file));
}

TEST_F(AWriteSession, WritesToItsFileFromOneByteMoreThanTenMebibytes)
{
    const std::string body(threshold, 'x');
    session.append(body, 0);
    session.append("y", 1);

    EXPECT_EQ(session.buffer.data, "");
    EXPECT_EQ(fs::file_size(file), threshold + 1);

    session.append("z", 2);
    EXPECT_EQ(session.buffer.data, "z");
    EXPECT_EQ(fs::file_size(file), threshold + 1);

    std::string out;
    session.buffer.read(&out);
    EXPECT_TRUE(out == body + "yz");
}

TEST_F(AWriteSession, WritesToItsFileOverAndOver)
{
    std::string body;
    for (unsigned int i = 0; i < 5; ++i) {
        const std::string chunk((std::size_t{7} << 20) + i, static_cast<char>('a' + i));
        session.append(chunk, i);
        body += chunk;
    }

    EXPECT_EQ(fs::file_size(file), std::size_t{28 << 20} + 6); // twice two chunks, and the fifth is in memory
    std::string out;
    session.buffer.read(&out);
    EXPECT_TRUE(out == body);
}

TEST_F(AWriteSession, DoesNotCountAChunkThatCannotBeWritten)
{
    const FileSizeLimit limit(1 << 20);

    EXPECT_EQ(logged_and_thrown<tarn::Exception>([&] { session.append(std::string(threshold + 1, 'x'), 0); }),
              "flush failed, out of disk space?");
    EXPECT_EQ(session.next_chunk, 0u);
}

// --- The list -----------------------------------------------------------------------------------------

/// Stands still until it is set.
class FakeClock : public slate::Clock {
public:
    unsigned long ticks() const override { return ticks_; }
    unsigned long frequency() const override { return 1000; }

    void set(unsigned long milliseconds) { ticks_ = milliseconds; }

private:
    unsigned long ticks_ = 0;
};

class ASessionList : public testing::Test {
protected:
    ASessionList() { fs::create_directories(temporary); }

    /// A session with something in its file.
    fs::path add_with_file(const std::string& id, const slate::Duration& expires)
    {
        const auto entry = list.add(id, expires);
        entry->session.buffer.data = "x";
        entry->session.buffer.flush();
        return entry->session.buffer.path.path;
    }

    bool has(const std::string& id) const { return list.find(id) != nullptr; }

    ScratchFolder folder;
    const fs::path temporary = folder.path() / "tmp";
    const TemporaryFolderVariable variable{temporary};
    const LogCapture log;
    const std::shared_ptr<FakeClock> clock = std::make_shared<FakeClock>();
    SessionList<WriteSession> list{clock};
};

TEST_F(ASessionList, FindsNothingAtFirst)
{
    EXPECT_EQ(list.size(), 0u);
    EXPECT_EQ(list.find("a"), nullptr);
}

TEST_F(ASessionList, FindsSessionsByTheirId)
{
    const auto a = list.add("a", slate::Seconds(1));
    const auto b = list.add("b", slate::Seconds(2));

    EXPECT_EQ(list.find("a"), a);
    EXPECT_EQ(list.find("b"), b);
    EXPECT_EQ(list.find("A"), nullptr);
    EXPECT_EQ(a->session.id, "a");
    EXPECT_EQ(b->session.expires, slate::Seconds(2));
}

TEST_F(ASessionList, FindsTheFirstOfSeveralSessionsWithOneId)
{
    const auto first = list.add("a", slate::Seconds(1));
    const auto second = list.add("a", slate::Seconds(2));

    EXPECT_EQ(list.find("a"), first);
    list.remove("a");
    EXPECT_EQ(list.find("a"), second);
}

TEST_F(ASessionList, PutsTheFileOfASessionIntoTheFolderForTemporaryFiles)
{
    const auto entry = list.add("a", slate::Seconds(1));

    EXPECT_EQ(entry->session.buffer.path.path.parent_path(), temporary);
    EXPECT_EQ(entry->session.buffer.path.prefix, ".");
}

TEST_F(ASessionList, PutsTheFileOfASessionBesideItsDestination)
{
    const auto entry = list.add("a", slate::Seconds(1), folder.path() / "target");

    EXPECT_EQ(entry->session.buffer.path.path.parent_path(), folder.path());
    EXPECT_EQ(entry->session.buffer.path.prefix, ".target_");
}

TEST_F(ASessionList, AddsNoSessionThatCanHaveNoFile)
{
    EXPECT_THROW(list.add("a", slate::Seconds(1), "relative"), tarn::Exception);
    EXPECT_EQ(list.size(), 0u);
}

TEST_F(ASessionList, LogsAtDebugLevelAndWithoutAProviderWhatItAddsAndRemoves)
{
    slate::set_log_level(slate::DebugLevel);

    list.add("a", slate::Seconds(1));
    list.add("b", slate::Seconds(2), folder.path() / "target");
    list.remove("a");
    list.remove("unknown");

    const auto lines = log.lines();
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[0].text, "add: WriteSession { id: a, path: 1s }");
    EXPECT_EQ(lines[1].text, "add: WriteSession { id: b, path: 2s }");
    EXPECT_EQ(lines[2].text, "remove: WriteSession { id: a, path: 1s }");
    for (const LoggedLine& line : lines) {
        EXPECT_EQ(line.level, slate::DebugLevel);
        EXPECT_EQ(line.provider, "");
    }
}

TEST_F(ASessionList, RemovesASessionWithItsFile)
{
    const fs::path file = add_with_file("a", slate::Seconds(1));
    ASSERT_TRUE(fs::exists(file));

    list.remove("a");

    EXPECT_FALSE(has("a"));
    EXPECT_FALSE(fs::exists(file));
}

TEST_F(ASessionList, IgnoresTheRemovalOfAnUnknownSession)
{
    list.add("a", slate::Seconds(1));
    list.remove("b");
    EXPECT_EQ(list.size(), 1u);
}

TEST_F(ASessionList, LeavesARemovedSessionToThoseWhoStillWorkOnIt)
{
    const fs::path file = add_with_file("a", slate::Seconds(1));
    auto held = list.find("a");

    list.remove("a");
    held->session.append("still here", 0);
    EXPECT_EQ(held->session.buffer.data, "still here");
    EXPECT_TRUE(fs::exists(file));

    held.reset();
    EXPECT_FALSE(fs::exists(file));
}

TEST_F(ASessionList, DeletesAllFilesWhenItGoes)
{
    {
        SessionList<WriteSession> brief(clock);
        for (const char* id : {"a", "b"}) {
            const auto entry = brief.add(id, slate::Seconds(1));
            entry->session.buffer.data = "x";
            entry->session.buffer.flush();
        }
        ASSERT_EQ(files_below(temporary).size(), 2u);
    }
    EXPECT_TRUE(fs::is_empty(temporary));
}

TEST_F(ASessionList, TellsTheTimeOfItsClock)
{
    clock->set(1500);
    EXPECT_EQ(list.now(), slate::Milliseconds(1500));
}

TEST_F(ASessionList, KeepsTenSessions)
{
    for (int i = 0; i < 10; ++i)
        list.add(std::to_string(i), slate::Seconds(1));

    list.clean(nullptr);

    EXPECT_EQ(list.size(), 10u);
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(ASessionList, HoldsMoreThanTenSessionsUntilItIsCleaned)
{
    for (int i = 0; i < 13; ++i)
        list.add(std::to_string(i), slate::Seconds(1));
    EXPECT_EQ(list.size(), 13u);
}

TEST_F(ASessionList, DiscardsTheOldestSessionsBeyondTenWithTheirFiles)
{
    std::vector<fs::path> files;
    for (int i = 0; i < 13; ++i)
        files.push_back(add_with_file("id" + std::to_string(i), slate::Seconds(100 - i)));
    const auto provider = slate::add_provider("some", "7", false);

    list.clean(provider);

    EXPECT_EQ(list.size(), 10u);
    for (unsigned int i = 0; i < 13; ++i) {
        EXPECT_EQ(has("id" + std::to_string(i)), i >= 3) << i;
        EXPECT_EQ(fs::exists(files[i]), i >= 3) << i;
    }
    const auto lines = log.lines();
    ASSERT_EQ(lines.size(), 3u);
    for (unsigned int i = 0; i < 3; ++i) {
        EXPECT_EQ(lines[i].level, slate::WarnLevel);
        EXPECT_EQ(lines[i].text,
                  "too many file transfer sessions; discarding oldest: id" + std::to_string(i));
        EXPECT_EQ(lines[i].provider, provider->name());
    }
    slate::remove_provider(provider->name());
}

TEST_F(ASessionList, RemovesSessionsWhoseTimeHasPassedWithTheirFiles)
{
    const fs::path early = add_with_file("early", slate::Milliseconds(1000));
    const fs::path late = add_with_file("late", slate::Milliseconds(3000));
    const fs::path between = add_with_file("between", slate::Milliseconds(2000));
    const auto provider = slate::add_provider("some", "7", false);

    clock->set(2001);
    list.clean(provider);

    EXPECT_FALSE(has("early"));
    EXPECT_FALSE(has("between"));
    EXPECT_TRUE(has("late"));
    EXPECT_FALSE(fs::exists(early));
    EXPECT_FALSE(fs::exists(between));
    EXPECT_TRUE(fs::exists(late));
    const auto lines = log.lines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].text, "removing expired file transfer session: early");
    EXPECT_EQ(lines[1].text, "removing expired file transfer session: between");
    for (const LoggedLine& line : lines) {
        EXPECT_EQ(line.level, slate::WarnLevel);
        EXPECT_EQ(line.provider, provider->name());
    }
    slate::remove_provider(provider->name());
}

TEST_F(ASessionList, KeepsASessionAtTheVeryMomentOfItsExpiry)
{
    list.add("a", slate::Milliseconds(1000));

    clock->set(1000);
    list.clean(nullptr);
    EXPECT_TRUE(has("a"));

    clock->set(1001);
    list.clean(nullptr);
    EXPECT_FALSE(has("a"));
}

TEST_F(ASessionList, KeepsASessionWhoseExpiryWasMovedOn)
{
    const auto entry = list.add("a", slate::Milliseconds(1000));
    list.set_expiry(*entry, slate::Milliseconds(5000));
    EXPECT_EQ(entry->session.expires, slate::Milliseconds(5000));

    clock->set(4000);
    list.clean(nullptr);

    EXPECT_TRUE(has("a"));
}

TEST_F(ASessionList, DiscardsTheOldestEvenIfAYoungerOneHasExpired)
{
    list.add("oldest", slate::Milliseconds(100000));
    for (int i = 0; i < 10; ++i)
        list.add("id" + std::to_string(i), slate::Milliseconds(i == 9 ? 10 : 100000));

    clock->set(20);
    list.clean(nullptr);

    EXPECT_FALSE(has("oldest"));
    EXPECT_FALSE(has("id9"));
    EXPECT_EQ(list.size(), 9u);
    EXPECT_TRUE(log.lines().at(0).text.starts_with("too many "));
    EXPECT_TRUE(log.lines().at(1).text.starts_with("removing expired "));
}

TEST_F(ASessionList, CleansNothingIfItIsEmpty)
{
    clock->set(1'000'000);
    list.clean(nullptr);
    EXPECT_TRUE(log.lines().empty());
}
} // namespace
