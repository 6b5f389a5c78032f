#include "plan/SyncAction.hpp"

#include "common/DecodingError.hpp"
#include "support/Shorthand.hpp"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <limits>
#include <string>
#include <vector>

namespace varnel {
namespace {

using R = SyncActionReason;

using testing::rel;

// The fast writer must give the document writer's text byte for byte, whichever
// optional fields are present and whatever bytes the names hold.
TEST(SyncActionJSONTest, CompactTextIsWhatTheDocumentWriterGives) {
    FileSystemEntry full;
    full.relativePath = rel("Fotos/Café \"quoted\" \\ back\tslash\x7f");
    full.kind = EntryKind::symbolicLink;
    full.size = std::numeric_limits<std::int64_t>::max();
    full.allocatedBlocks = FileSystemEntry::kMaxAllocatedBlocks;
    full.modificationTime = FileTimestamp{-1, 999'999'999};
    full.creationTime = FileTimestamp{1'700'000'000, 0};
    full.symlinkTarget = "../target\n\x01";
    full.deviceID = std::numeric_limits<std::uint32_t>::max();
    full.inode = 1234567890123ULL;
    full.ownerUID = 4'000'000'000U;
    full.ownerGID = 0;
    full.hardLinkCount = FileSystemEntry::kMaxHardLinkCount;
    full.posixPermissions = 07777;
    full.isDataless = true;

    FileSystemEntry bare;  // no optionals at all
    bare.relativePath = rel("plain/name.txt");

    FileSystemEntry odd = bare;
    odd.relativePath = rel(std::string("broken-\xff\xfe-utf8"));  // a Linux name need not be UTF-8
    odd.kind = EntryKind::unsupported;
    odd.unsupportedReason = UnsupportedReason::fifo;

    std::vector<SyncAction> actions;
    actions.push_back({SyncActionType::replaceSymlink, full.relativePath, R::SymlinkTargetChanged{"a\"", "ü"},
                       SharedEntry(full), SharedEntry(full), -7});
    actions.push_back({SyncActionType::copyNewFile, bare.relativePath, R::NotPresentInDestination{},
                       SharedEntry(bare), SharedEntry(), 42});
    actions.push_back({SyncActionType::archiveDestinationItem, odd.relativePath, R::NotPresentInSource{},
                       SharedEntry(), SharedEntry(odd), 0});
    actions.push_back({SyncActionType::warning, RelativePath(), R::ScanFailure{"x\r\ny"}, {}, {}, 0});
    // One awkward byte per name, so each escape is tested on its own.
    for (const std::string name : {"quote\"d", "back\\slash", "tab\tbed", "del\x7f", "Straße", "bad\xc3"}) {
        FileSystemEntry entry = bare;
        entry.relativePath = rel(name);
        entry.symlinkTarget = name;
        actions.push_back({SyncActionType::copyNewFile, entry.relativePath, R::NotPresentInDestination{},
                           SharedEntry(entry), SharedEntry(), 1});
    }

    for (const auto& action : actions) {
        std::string fast = "prefix ";
        appendCompactJSON(fast, action);
        const std::string expected =
            nlohmann::json(action).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
        EXPECT_EQ(fast, "prefix " + expected);
    }

    // Each optional reads back as written, present or absent; a time no clock gives is refused
    // rather than read as an absent one.
    for (const auto& entry : {full, bare, odd}) {
        EXPECT_EQ(nlohmann::json(entry).get<FileSystemEntry>(), entry);
    }
    nlohmann::json badTime = full;
    badTime["creationTime"]["nanoseconds"] = -1;
    EXPECT_THROW((void)badTime.get<FileSystemEntry>(), DecodingError);

    // A damaged number is refused, never rounded or cut to fit the entry.
    const std::vector<std::pair<const char*, nlohmann::json>> damaged = {
        {"posixPermissions", 010000},
        {"deviceID", std::uint64_t{1} << 32},
        {"size", 1.5},
        {"inode", -1},
        {"ownerUID", "0"},
        {"hardLinkCount", -2},
        {"allocatedBlocks", -1},
        {"allocatedBlocks", FileSystemEntry::kMaxAllocatedBlocks + 1}};
    for (const auto& [key, value] : damaged) {
        nlohmann::json document = full;
        document[key] = value;
        EXPECT_THROW((void)document.get<FileSystemEntry>(), DecodingError) << key << " = " << value;
    }
    // A link count beyond the 16 bits kept still means "more than one name".
    nlohmann::json manyLinks = bare;
    manyLinks["hardLinkCount"] = 70'000;
    EXPECT_EQ(manyLinks.get<FileSystemEntry>().hardLinkCount, FileSystemEntry::kMaxHardLinkCount);
}

// An action keeps its byte count in 56 bits: a sparse file claiming exabytes is held at
// the largest count kept, and a document with a larger one is refused, never cut.
TEST(SyncActionJSONTest, ByteCountsBeyondWhatAnActionHoldsAreHeldOrRefused) {
    const SyncAction huge{SyncActionType::copyNewFile, rel("sparse.img"), R::NotPresentInDestination{}, {}, {},
                          std::numeric_limits<std::int64_t>::max()};
    EXPECT_EQ(huge.expectedBytes, SyncAction::kMaxExpectedBytes);
    EXPECT_EQ(huge.type, SyncActionType::copyNewFile);
    EXPECT_EQ(nlohmann::json(huge).get<SyncAction>(), huge);

    nlohmann::json document = huge;
    document["expectedBytes"] = SyncAction::kMaxExpectedBytes + 1;
    EXPECT_THROW((void)document.get<SyncAction>(), DecodingError);
}

}  // namespace
}  // namespace varnel
