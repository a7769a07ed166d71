#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>
#include <regex>

#include "directory/KyTferDirectory.h"

namespace {

using Names = std::vector<std::string>;
using namespace std::string_literals;

KyTferDirectory Sample() {
    KyTferDirectory directory;
    directory.AddEntry("", "event.log", "EVT0001.LOG", "LOG", 20480, 1710491400000000000);
    directory.AddEntry("", "config.cfg", "CFG0001.CFG", "CONFIG", 512, 1710460799000000000);
    directory.AddEntry("", "trend.csv", "TRD0001.CSV", "TREND", 131072, 1710331200000000000);
    return directory;
}

/// Replaces ' by a quote and | by a line end.
std::string Json(std::string text) {
    std::replace(text.begin(), text.end(), '\'', '"');
    std::replace(text.begin(), text.end(), '|', '\n');
    return text;
}

TEST(DirEntry, Document) {
    setenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3", 1);  // dates are in UTC all the same
    const KyTferDirEntry odd("p", "\xE9", "a\0b"s, "\xC3\xA9\n", 4294967295U, 1709251199999999999);
    EXPECT_EQ(
        odd.GetEntryAsJSONString(),
        Json("{|  'filedate':'2024-02-29 23:59:59Z',|  'filesize':4294967295,|  'filesizeunit':'bytes',|"
             "  'filetype':'\xC3\xA9\\n',|  'path':'p',|  'tfername':'a'|}"));
    setenv("TZ", "UTC0", 1);
    EXPECT_EQ(odd.GetFullXferFilePath(), "p/a\0b"s);
    EXPECT_EQ(KyTferDirEntry("", "o", "x", "", 0, 0).GetFullOrigFilePath(), "o");
}

TEST(Directory, FindsTheFirstByPathAndTransferName) {
    KyTferDirectory directory = Sample();
    directory.AddEntry("logs", "other", "EVT0001.LOG", "", 1, 1);
    directory.AddEntry("", "second", "EVT0001.LOG", "", 2, 2);
    KyTferDirEntry entry;
    EXPECT_TRUE(directory.GetDirEntry("logs", "EVT0001.LOG", entry));
    EXPECT_EQ(entry.GetOrigFileName(), "other");
    EXPECT_TRUE(directory.GetDirEntry("", "EVT0001.LOG", entry));
    EXPECT_EQ(entry.GetOrigFileName(), "event.log");
}

TEST(Listing, WithoutEntries) {
    EXPECT_EQ(KyTferDirectory::GetEmptyList("web-42", 0, 10, "", KyTferStatusMsg::TFER_STATUS_FAIL),
              Json("{|  'context':'web-42',|  'files':[],|  'filter':'',|  'skip':0,|"
                   "  'status':'TFER_STATUS_FAIL',|  'take':10,|  'totalFiles':0,|  'version':1|}"));
}

TEST(Listing, PagesAtEveryBoundary) {
    const KyTferDirectory none, three = Sample();
    const struct {
        const KyTferDirectory& directory;
        unsigned int skip, take;
        Names names;
    } rows[] = {
        {none, 0, 4294967295, {}},
        {three, 0, 0, {}},
        {three, 0, 4, {"EVT0001.LOG", "CFG0001.CFG", "TRD0001.CSV"}},
        {three, 1, 1, {"CFG0001.CFG"}},
        {three, 1, 4294967295, {"CFG0001.CFG", "TRD0001.CSV"}},
        {three, 3, 1, {}},
        {three, 4, 1, {}},
        {three, 4294967295, 4294967295, {}},
    };
    for (const auto& [directory, skip, take, names] : rows) {
        SCOPED_TRACE(std::to_string(skip) + " " + std::to_string(take));
        EXPECT_EQ(directory.GetEntryList(skip, take).size(), names.size());
        const auto status = static_cast<KyTferStatusMsg::TferStatus>(5);
        const std::string text = directory.GetEntryListAsJSONString("\xE9", skip, take, "*.log", status);
        const std::regex name("\"tfername\":\"(.*)\"");
        EXPECT_EQ(Names(std::sregex_token_iterator(text.begin(), text.end(), name, 1), {}), names);
        EXPECT_EQ(text.find("\"files\""), 4U) << "there is no context that is not UTF-8";
        EXPECT_EQ(text.substr(text.find("  \"filter\"")),
                  Json("  'filter':'',|  'skip':" + std::to_string(skip) +
                       ",|  'status':'TFER_STATUS_UNKNOWN',|  'take':" + std::to_string(take) +
                       ",|  'totalFiles':" + (&directory == &three ? "3" : "0") + ",|  'version':1|}"));
    }
}

}  // namespace
