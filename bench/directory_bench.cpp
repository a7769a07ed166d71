// A page of a listing, and the reading of a listing, each beside a lower bound without the library. The arguments are
// the numbers of entries.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <jansson.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <limits>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "directory/KyBlankSeparatedListing.h"
#include "directory/KyTferDirectory.h"

namespace {

constexpr unsigned int kPage = 50;
constexpr unsigned long long kFirstDate = 1710491400;  // seconds since 1970 UTC

struct Names {
    explicit Names(size_t i) {
        char text[32];
        std::snprintf(text, sizeof text, "event%06zu.log", i % 1000000);
        orig = text;
        std::snprintf(text, sizeof text, "EVT%05zu.LOG", i % 100000);
        xfer = text;
    }
    std::string orig;
    std::string xfer;
};

KyTferDirectory MakeListing(size_t count) {
    KyTferDirectory directory;
    for (size_t i = 0; i < count; ++i) {
        const Names names(i);
        directory.AddEntry("", names.orig, names.xfer, "LOG", static_cast<unsigned int>(i * 7919 % 300000),
                           (kFirstDate + i) * 1000000000);
    }
    return directory;
}

std::string PageAt(const KyTferDirectory& directory, unsigned int skip) {
    return directory.GetEntryListAsJSONString("bench", skip, kPage, "",
                                              KyTferStatusMsg::TFER_STATUS_COMPLETE);
}

void WithRepetitions(benchmark::internal::Benchmark* benchmark) {
    benchmark->MinTime(0.05)->Repetitions(9)->ReportAggregatesOnly();
}

/// The listing of so many entries: made once, because the benchmarks run several times.
const KyTferDirectory& TheListing(const benchmark::State& state) {
    static std::map<int64_t, KyTferDirectory> s_listings;
    const auto found = s_listings.find(state.range(0));
    if (found != s_listings.end()) return found->second;
    return s_listings.emplace(state.range(0), MakeListing(static_cast<size_t>(state.range(0)))).first->second;
}

/// A page of 50 entries. The pages of the iterations lie all over the listing.
void Page(benchmark::State& state) {
    const KyTferDirectory& listing = TheListing(state);
    const auto pages = static_cast<unsigned int>(state.range(0)) - kPage;
    unsigned int position = 0;
    for ([[maybe_unused]] auto iteration : state) {
        position += 50021;
        benchmark::DoNotOptimize(PageAt(listing, position % pages));
    }
}
BENCHMARK(Page)->Arg(100)->Arg(10000)->Arg(1000000)->Apply(WithRepetitions)->Unit(benchmark::kMicrosecond);

/// An entry for jansson, with the date as text.
struct ReadyEntry {
    std::string orig, xfer, type, date;
    unsigned int size;
};

json_t* BuildPage(const std::vector<ReadyEntry>& entries) {
    json_t* const document = json_object();
    json_object_set_new(document, "version", json_integer(1));
    json_object_set_new(document, "context", json_string("bench"));
    json_object_set_new(document, "skip", json_integer(0));
    json_object_set_new(document, "take", json_integer(kPage));
    json_object_set_new(document, "totalFiles", json_integer(kPage));
    json_object_set_new(document, "filter", json_string(""));
    json_object_set_new(document, "status", json_string("TFER_STATUS_COMPLETE"));
    json_t* const files = json_array();
    for (const ReadyEntry& entry : entries) {
        json_t* const file = json_object();
        json_object_set_new(file, "path", json_string(""));
        json_object_set_new(file, "filename", json_string(entry.orig.c_str()));
        json_object_set_new(file, "tfername", json_string(entry.xfer.c_str()));
        json_object_set_new(file, "filesize", json_integer(entry.size));
        json_object_set_new(file, "filesizeunit", json_string("bytes"));
        json_object_set_new(file, "filetype", json_string(entry.type.c_str()));
        json_object_set_new(file, "filedate", json_string(entry.date.c_str()));
        json_array_append_new(files, file);
    }
    json_object_set_new(document, "files", files);
    return document;
}

/// The same page with jansson alone, which builds the document and dumps it twice: for the result and the log.
void PageWithJansson(benchmark::State& state) {
    const KyTferDirectory directory = MakeListing(kPage);
    std::vector<ReadyEntry> entries;
    for (const KyTferDirEntry& entry : directory.GetEntryList(0, kPage))
        entries.push_back({entry.GetOrigFileName(), entry.GetXferFileName(), entry.GetFileType(),
                           entry.GetDateTimeAsString(), entry.GetFileSizeInBytes()});
    std::string page;
    for ([[maybe_unused]] auto iteration : state) {
        json_t* const built = BuildPage(entries);
        free(json_dumps(built, JSON_SORT_KEYS));
        char* const document = json_dumps(built, JSON_INDENT(2) | JSON_COMPACT | JSON_SORT_KEYS);
        json_decref(built);
        page = document;
        free(document);
    }
    if (page != PageAt(directory, 0)) state.SkipWithError("the documents differ");
}
BENCHMARK(PageWithJansson)->Apply(WithRepetitions)->Unit(benchmark::kMicrosecond);

enum class Form { COMMAS, BLANKS };

/// A listing file of so many entries; removed by the destructor.
class ListingFile {
public:
    ListingFile(size_t count, Form form) : m_path("/tmp/directory_bench-XXXXXX") {
        FILE* const file = fdopen(mkstemp(m_path.data()), "w");
        std::fprintf(file, form == Form::COMMAS ? "1,%zu\nName,XferName,Type,Size,Date\n" : "1,%zu\n", count);
        for (size_t i = 0; i < count; ++i) {
            const Names names(i);
            std::fprintf(file,
                         form == Form::COMMAS ? "%s,%s,LOG,%zu,2024-%02zu-15T08:30:00.250\n"
                                              : "%s , %s , LOG , %zu , 17104%05zu000000000\n",
                         names.orig.c_str(), names.xfer.c_str(), i * 7919 % 300000,
                         form == Form::COMMAS ? 1 + i % 12 : i % 100000);
        }
        std::fclose(file);
    }
    ListingFile(const ListingFile&) = delete;
    ListingFile& operator=(const ListingFile&) = delete;
    ~ListingFile() { unlink(m_path.c_str()); }

    const std::string& Path() const { return m_path; }

private:
    std::string m_path;
};

void ReadPlainly(const std::string& path) {
    static char s_buffer[64 * 1024];
    const int descriptor = open(path.c_str(), O_RDONLY);
    while (read(descriptor, s_buffer, sizeof s_buffer) > 0)
        benchmark::DoNotOptimize(s_buffer);
    close(descriptor);
}

/// Extracts the items of every entry with `>>`, and hands them to `take`.
template <typename Take>
void Extract(const std::string& path, const Take& take) {
    std::ifstream in(path);
    unsigned int number = 0, size = 0;
    unsigned long long date = 0;
    char separator = 0;
    std::string orig, xfer, type;
    in >> number >> separator >> number;
    in.ignore(std::numeric_limits<std::streamsize>::max(), '\n');
    while (in >> orig >> separator >> xfer >> separator >> type >> separator >> size >> separator >> date)
        take(orig, xfer, type, size, date);
}

const ListingFile& TheFile(const benchmark::State& state, Form form) {
    static std::map<std::pair<int64_t, Form>, ListingFile> s_files;
    const auto count = static_cast<size_t>(state.range(0));
    return s_files.try_emplace({state.range(0), form}, count, form).first->second;
}

template <typename Read>
void MeasureReading(benchmark::State& state, Form form, Read read) {
    const ListingFile& file = TheFile(state, form);
    for ([[maybe_unused]] auto iteration : state)
        read(file.Path());
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

void CheckCount(benchmark::State& state, const KyTferDirectory& directory) {
    const auto last = static_cast<unsigned int>(state.range(0)) - 1;
    if (directory.GetEntryList(last, 2).size() != 1) state.SkipWithError("not all entries were read");
}

void ReadBlankSeparated(benchmark::State& state) {
    MeasureReading(state, Form::BLANKS, [&](const std::string& path) {
        KyTferDirectory directory;
        ky_directory::ReadBlankSeparatedListing(path, directory);
        CheckCount(state, directory);
    });
}

/// The lower bound of ReadBlankSeparated: extracts the entries and adds them to a listing.
void ExtractAndKeep(benchmark::State& state) {
    MeasureReading(state, Form::BLANKS, [&](const std::string& path) {
        KyTferDirectory directory;
        Extract(path, [&](const auto&... items) { directory.AddEntry("", items...); });
        CheckCount(state, directory);
    });
}

void ExtractOnly(benchmark::State& state) {
    MeasureReading(state, Form::BLANKS, [](const std::string& path) {
        Extract(path, [](const auto&... items) { (benchmark::DoNotOptimize(items), ...); });
    });
}

void ReadBytesOnly(benchmark::State& state) {
    MeasureReading(state, Form::BLANKS, ReadPlainly);
}

void ReadCommaSeparated(benchmark::State& state) {
    MeasureReading(state, Form::COMMAS, [&](const std::string& path) {
        KyTferDirectory directory;
        directory.ParseFile(path);
        CheckCount(state, directory);
    });
}

void WithListingSizes(benchmark::internal::Benchmark* benchmark) {
    benchmark->Arg(10000)->Arg(100000)->Arg(1000000)->Unit(benchmark::kMillisecond);
    benchmark->MinTime(0.01)->Repetitions(5)->ReportAggregatesOnly();
}
BENCHMARK(ReadBlankSeparated)->Apply(WithListingSizes);
BENCHMARK(ExtractAndKeep)->Apply(WithListingSizes);
BENCHMARK(ExtractOnly)->Apply(WithListingSizes);
BENCHMARK(ReadBytesOnly)->Apply(WithListingSizes);
BENCHMARK(ReadCommaSeparated)->Apply(WithListingSizes);

}  // namespace
