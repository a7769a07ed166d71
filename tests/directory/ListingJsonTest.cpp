#include <gtest/gtest.h>
#include <jansson.h>

#include <algorithm>
#include <cstdlib>

#include "directory/ListingText.h"
#include "support/LogCapture.h"

namespace {

using Entries = std::vector<std::string>;
using Status = KyTferStatusMsg;
using namespace std::string_literals;

const KyTferDirEntry kEvent("", "event.log", "EVT0001.LOG", "LOG", 20480, 1710491400000000000);

KyTferDirectory Sample() {
    KyTferDirectory directory;
    directory.AddEntry("", "event.log", "EVT0001.LOG", "LOG", 20480, 1710491400000000000);
    directory.AddEntry("", "config.cfg", "CFG0001.CFG", "CONFIG", 512, 1710460799000000000);
    directory.AddEntry("", "trend.csv", "TRD0001.CSV", "TREND", 131072, 1710331200000000000);
    return directory;
}

/// A document in which ' stands for a quote and | for a line end.
std::string Json(std::string text) {
    std::replace(text.begin(), text.end(), '\'', '"');
    std::replace(text.begin(), text.end(), '|', '\n');
    return text;
}

TEST(DirEntry, Texts) {
    EXPECT_EQ(
        kEvent.GetEntryAsJSONString(),
        Json("{|  'filedate':'2024-03-15 08:30:00Z',|  'filename':'event.log',|  'filesize':20480,|"
             "  'filesizeunit':'bytes',|  'filetype':'LOG',|  'path':'',|  'tfername':'EVT0001.LOG'|}"));
    const KyTferDirEntry odd("p", "\xE9", "a\0b"s, "\xC3\xA9\n", 4294967295U, 0);
    EXPECT_EQ(
        odd.GetEntryAsJSONString(),
        Json("{|  'filedate':'1970-01-01 00:00:00Z',|  'filesize':4294967295,|  'filesizeunit':'bytes',|"
             "  'filetype':'\xC3\xA9\\n',|  'path':'p',|  'tfername':'a'|}"));
    const struct {
        unsigned long long nanoseconds;
        const char* text;
    } rows[] = {{0, "1970-01-01 00:00:00Z"},
                {999999999, "1970-01-01 00:00:00Z"},
                {1999999999, "1970-01-01 00:00:01Z"},
                {1709251199999999999, "2024-02-29 23:59:59Z"},
                {18446744073709551615ULL, "2554-07-21 23:34:33Z"}};
    setenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3", 1);
    for (const auto& row : rows)
        EXPECT_EQ(KyTferDirEntry("", "", "", "", 0, row.nanoseconds).GetDateTimeAsString(), row.text);
    setenv("TZ", "UTC0", 1);
}

TEST(DirEntry, CopiesAndPaths) {
    KyTferDirEntry entry;
    EXPECT_EQ(Text(entry), "|||0|0");
    entry.Init("logs", "a", "B", "C", 1, 2);
    KyTferDirEntry copy(entry), assigned;
    assigned = copy;
    entry.Init("logs/", "", "X", "", 0, 0);
    EXPECT_EQ(Text(copy), "a|B|C|1|2logs");
    EXPECT_EQ(Text(assigned), Text(copy));
    EXPECT_EQ(Text(entry), "|X||0|0logs/");
    EXPECT_EQ(copy.GetFullXferFilePath() + " " + copy.GetFullOrigFilePath(), "logs/B logs/a");
    EXPECT_EQ(entry.GetFullXferFilePath() + " " + entry.GetFullOrigFilePath(), "logs//X logs//");
    EXPECT_EQ(kEvent.GetFullXferFilePath() + " " + kEvent.GetFullOrigFilePath(), "EVT0001.LOG event.log");
}

TEST(Directory, FindsTheFirstByPathAndTransferName) {
    KyTferDirectory directory = Sample();
    directory.AddEntry("logs", "other", "EVT0001.LOG", "", 1, 1);
    directory.AddEntry("", "second", "EVT0001.LOG", "", 2, 2);
    const struct {
        const char* path;
        const char* name;
        std::string found;
    } rows[] = {{"", "EVT0001.LOG", "event.log|EVT0001.LOG|LOG|20480|1710491400000000000"},
                {"logs", "EVT0001.LOG", "other|EVT0001.LOG||1|1logs"},
                {"", "evt0001.log", ""},
                {"", "event.log", ""},
                {"logs", "CFG0001.CFG", ""}};
    for (const auto& row : rows) {
        KyTferDirEntry entry("kept", "", "", "", 0, 0);
        EXPECT_EQ(directory.GetDirEntry(row.path, row.name, entry), !row.found.empty());
        EXPECT_EQ(Text(entry), row.found.empty() ? "|||0|0kept" : row.found) << row.path << " " << row.name;
    }
}

TEST(Listing, SampleDocuments) {
    LogCapture log;
    EXPECT_EQ(Sample().GetEntryListAsJSONString("web-42", 1, 5, "", Status::TFER_STATUS_COMPLETE),
              Json("{|  'context':'web-42',|  'files':[|    {|      'filedate':'2024-03-14 23:59:59Z',|"
                   "      'filename':'config.cfg',|      'filesize':512,|      'filesizeunit':'bytes',|"
                   "      'filetype':'CONFIG',|      'path':'',|      'tfername':'CFG0001.CFG'|    },|    {|"
                   "      'filedate':'2024-03-13 12:00:00Z',|      'filename':'trend.csv',|"
                   "      'filesize':131072,|      'filesizeunit':'bytes',|      'filetype':'TREND',|"
                   "      'path':'',|      'tfername':'TRD0001.CSV'|    }|  ],|  'filter':'',|  'skip':1,|"
                   "  'status':'TFER_STATUS_COMPLETE',|  'take':5,|  'totalFiles':3,|  'version':1|}"));
    EXPECT_EQ(
        log.Texts("GetEntryListAsJSONString", true),
        (Entries{"Build array of files.  We have (3) files in our directory",
                 Json("Returning (single line, sorted keys): {'context': 'web-42', 'files': "
                      "[{'filedate': '2024-03-14 23:59:59Z', 'filename': 'config.cfg', 'filesize': 512, "
                      "'filesizeunit': 'bytes', 'filetype': 'CONFIG', 'path': '', 'tfername': "
                      "'CFG0001.CFG'}, {'filedate': '2024-03-13 12:00:00Z', 'filename': 'trend.csv', "
                      "'filesize': 131072, 'filesizeunit': 'bytes', 'filetype': 'TREND', 'path': '', "
                      "'tfername': 'TRD0001.CSV'}], 'filter': '', 'skip': 1, 'status': "
                      "'TFER_STATUS_COMPLETE', 'take': 5, 'totalFiles': 3, 'version': 1}")}));
    const std::string empty = Json(
        "{|  'context':'web-42',|  'files':[],|  'filter':'',|  'skip':0,|  'status':'TFER_STATUS_FAIL',|"
        "  'take':10,|  'totalFiles':0,|  'version':1|}");
    EXPECT_EQ(KyTferDirectory::GetEmptyList("web-42", 0, 10, "", Status::TFER_STATUS_FAIL), empty);
    EXPECT_EQ(log.Texts("GetEmptyList", true), (Entries{"Enter", "Exit(" + empty + ")"}));
    EXPECT_EQ(KyTferDirectory().GetEntryListAsJSONString("web-42", 0, 10, "x", Status::TFER_STATUS_FAIL),
              empty);
}

TEST(Listing, PagesAtEveryBoundary) {
    const std::string built = "Build array of files.  We have (3) files in our directory";
    const std::string emptied = "Directory list is empty";
    const KyTferDirectory none, three = Sample();
    const struct {
        const KyTferDirectory& directory;
        unsigned int skip, take;
        std::string names;
        std::string logged;
    } rows[] = {
        {none, 0, 0, "", emptied},
        {none, 0, UINT_MAX, "", emptied},
        {none, 1, 1, "", emptied},
        {three, 0, 0, "", built},
        {three, 0, 1, "EVT0001.LOG ", built},
        {three, 0, 3, "EVT0001.LOG CFG0001.CFG TRD0001.CSV ", built},
        {three, 0, 4, "EVT0001.LOG CFG0001.CFG TRD0001.CSV ", built},
        {three, 1, 1, "CFG0001.CFG ", built},
        {three, 1, UINT_MAX, "CFG0001.CFG TRD0001.CSV ", built},
        {three, 2, 1, "TRD0001.CSV ", built},
        {three, 2, UINT_MAX, "TRD0001.CSV ", built},
        {three, 3, 1, "", built},
        {three, 3, UINT_MAX, "", built},
        {three, 4, 1, "", emptied},
        {three, UINT_MAX, UINT_MAX, "", emptied},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(std::to_string(row.skip) + " " + std::to_string(row.take));
        LogCapture log;
        std::string copies, files;
        for (const KyTferDirEntry& entry : row.directory.GetEntryList(row.skip, row.take))
            copies += entry.GetXferFileName() + " ";
        EXPECT_EQ(copies, row.names);

        const auto status = static_cast<Status::TferStatus>(5);
        json_t* const document = json_loads(
            row.directory.GetEntryListAsJSONString("\xE9", row.skip, row.take, "*.log", status).c_str(), 0,
            nullptr);
        size_t i = 0;
        json_t* file = nullptr;
        json_array_foreach(json_object_get(document, "files"), i, file) {
            files += json_string_value(json_object_get(file, "tfername")) + " "s;
        }
        EXPECT_EQ(files, row.names);
        json_object_del(document, "files");
        char* const header = json_dumps(document, JSON_COMPACT | JSON_SORT_KEYS);
        EXPECT_EQ(header, Json("{'filter':'','skip':" + std::to_string(row.skip) +
                               ",'status':'TFER_STATUS_UNKNOWN','take':" + std::to_string(row.take) +
                               ",'totalFiles':" + (&row.directory == &three ? "3" : "0") + ",'version':1}"))
            << "with a context that is not UTF-8";
        free(header);
        json_decref(document);
        EXPECT_EQ(log.Texts("GetEntryListAsJSONString", true).front(), row.logged);
    }
}

int s_allocationsLeft = 0;

void* AllocateSome(size_t size) {
    return s_allocationsLeft-- > 0 ? malloc(size) : nullptr;
}

TEST(Listing, WithoutMemoryTheDocumentIsEmptyOrLacksSomething) {
    const KyTferDirectory directory = Sample();
    json_set_alloc_funcs(AllocateSome, free);
    size_t emptyDocuments = 0;
    std::string whole, text;
    for (int allocations = 0; allocations < 400; ++allocations) {
        LogCapture log;
        s_allocationsLeft = allocations;
        text = directory.GetEntryListAsJSONString("c", 0, 3, "", Status::TFER_STATUS_NONE);
        if (text.empty()) ++emptyDocuments;
        s_allocationsLeft = allocations;
        const std::string none = KyTferDirectory::GetEmptyList("c", 0, 3, "", Status::TFER_STATUS_NONE);
        ASSERT_EQ(log.Texts("GetEmptyList", true).back(), "Exit(" + none + ")");
        s_allocationsLeft = allocations;
        kEvent.GetEntryAsJSONString();
    }
    json_set_alloc_funcs(malloc, free);
    EXPECT_GT(emptyDocuments, 10U);
    EXPECT_EQ(text, directory.GetEntryListAsJSONString("c", 0, 3, "", Status::TFER_STATUS_NONE));
}

}  // namespace
