// What a page of a listing costs, and what reading a listing costs. Each benchmark times the code and what it
// is compared with in turns, round by round. It reports the median time of each, and as a ratio the median of
// the rounds' ratios: the two times of one round have met the same load and the same clock of the processor.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <jansson.h>
#include <stdlib.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <limits>
#include <string>
#include <vector>

#include "directory/KyBlankSeparatedListing.h"
#include "directory/KyTferDirectory.h"

namespace {

constexpr unsigned int kPage = 50;
constexpr unsigned long long kFirstDate = 1710491400;  // seconds since 1970 UTC

/// Nanoseconds that this thread has run: other load on the machine, which wall time would measure too, counts
/// less this way.
double ThreadTime() {
    struct timespec now = {};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return 1e9 * static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec);
}

double Median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values.empty() ? 0 : values[values.size() / 2];
}

/// What something took in each round, in nanoseconds.
class Times {
public:
    template <typename Work>
    void Time(const Work& work) {
        const double start = ThreadTime();
        work();
        m_rounds.push_back(ThreadTime() - start);
    }

    double Of(size_t parts) const { return Median(m_rounds) / static_cast<double>(parts); }

    double operator/(const Times& other) const {
        std::vector<double> ratios;
        for (size_t i = 0; i < m_rounds.size(); ++i)
            ratios.push_back(m_rounds[i] / other.m_rounds[i]);
        return Median(ratios);
    }

private:
    std::vector<double> m_rounds;
};

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

std::string Page(const KyTferDirectory& directory, unsigned int skip) {
    return directory.GetEntryListAsJSONString("bench", skip, kPage, "",
                                              KyTferStatusMsg::TFER_STATUS_COMPLETE);
}

/// One page of 50 entries from listings of three sizes. The pages lie all over the listing.
void PageByListingSize(benchmark::State& state) {
    const size_t sizes[] = {100, 10000, 1000000};
    std::vector<KyTferDirectory> listings;
    for (const size_t size : sizes)
        listings.push_back(MakeListing(size));
    Times times[std::size(sizes)];
    unsigned int position = 0;
    for ([[maybe_unused]] auto _ : state) {
        position += 50021;
        for (size_t i = 0; i < std::size(sizes); ++i) {
            const unsigned int skip = position % static_cast<unsigned int>(sizes[i] - kPage);
            times[i].Time([&] { benchmark::DoNotOptimize(Page(listings[i], skip)); });
        }
    }
    for (size_t i = 0; i < std::size(sizes); ++i)
        state.counters["ns_of_" + std::to_string(sizes[i])] = times[i].Of(1);
    state.counters["ratio_10000"] = times[1] / times[0];
    state.counters["ratio_1000000"] = times[2] / times[0];
}
BENCHMARK(PageByListingSize)->Iterations(2000)->Unit(benchmark::kMicrosecond);

/// An entry as jansson's caller would hold it, with the date as text already.
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

/// The page's document beside jansson alone, which builds it and dumps it for the result and for the log.
void PageDocument(benchmark::State& state) {
    const KyTferDirectory directory = MakeListing(kPage);
    std::vector<ReadyEntry> entries;
    for (const KyTferDirEntry& entry : directory.GetEntryList(0, kPage))
        entries.push_back({entry.GetOrigFileName(), entry.GetXferFileName(), entry.GetFileType(),
                           entry.GetDateTimeAsString(), entry.GetFileSizeInBytes()});
    Times ours, alone;
    std::string page;
    char* document = nullptr;
    for ([[maybe_unused]] auto _ : state) {
        ours.Time([&] { page = Page(directory, 0); });
        free(document);
        alone.Time([&] {
            json_t* const built = BuildPage(entries);
            free(json_dumps(built, JSON_SORT_KEYS));
            document = json_dumps(built, JSON_INDENT(2) | JSON_COMPACT | JSON_SORT_KEYS);
            json_decref(built);
        });
    }
    if (page != document) state.SkipWithError("the documents differ");
    free(document);
    state.counters["ns_page"] = ours.Of(1);
    state.counters["ns_jansson"] = alone.Of(1);
    state.counters["ratio"] = ours / alone;
}
BENCHMARK(PageDocument)->Iterations(2000)->Unit(benchmark::kMicrosecond);

enum class Form { COMMAS, BLANKS };

/// A listing file of so many entries, removed at the end.
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

/// Bare extraction of the nine items of every entry, which are handed to `take`.
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

void CheckCount(benchmark::State& state, const KyTferDirectory& directory) {
    const auto last = static_cast<unsigned int>(state.range(0)) - 1;
    if (directory.GetEntryList(last, 2).size() != 1) state.SkipWithError("not all entries were read");
}

void Report(benchmark::State& state, const Times& reading, const std::string& wanted, const Times& plain) {
    const auto count = static_cast<size_t>(state.range(0));
    state.counters["entries_per_s"] = 1e9 / reading.Of(count);
    state.counters["ns_entry_(at_most_" + wanted + ")"] = reading.Of(count);
    state.counters["ns_plain_read"] = plain.Of(count);
}

/// The blank-separated reader, whose listing keeps the entries, beside a plain read of the file and bare
/// extraction, which keeps none; and bare extraction that adds the entries to a listing.
void ReadBlankSeparated(benchmark::State& state) {
    const auto count = static_cast<size_t>(state.range(0));
    const ListingFile file(count, Form::BLANKS);
    Times ours, plain, bare, kept;
    for ([[maybe_unused]] auto _ : state) {
        KyTferDirectory directory, extracted;
        plain.Time([&] { ReadPlainly(file.Path()); });
        bare.Time([&] {
            Extract(file.Path(), [](const auto&... items) { (benchmark::DoNotOptimize(items), ...); });
        });
        kept.Time(
            [&] { Extract(file.Path(), [&](const auto&... items) { extracted.AddEntry("", items...); }); });
        ours.Time([&] { ky_directory::ReadBlankSeparatedListing(file.Path(), directory); });
        CheckCount(state, directory);
        CheckCount(state, extracted);
    }
    Report(state, ours, "100", plain);
    state.counters["ns_extraction"] = bare.Of(count);
    state.counters["ratio"] = ours / bare;
    state.counters["ratio_kept"] = ours / kept;
}
BENCHMARK(ReadBlankSeparated)
    ->Arg(10000)
    ->Arg(100000)
    ->Arg(1000000)
    ->Iterations(10)
    ->Unit(benchmark::kMillisecond);

/// The comma-separated reader beside a plain read of the file.
void ReadCommaSeparated(benchmark::State& state) {
    const ListingFile file(static_cast<size_t>(state.range(0)), Form::COMMAS);
    Times ours, plain;
    for ([[maybe_unused]] auto _ : state) {
        KyTferDirectory directory;
        plain.Time([&] { ReadPlainly(file.Path()); });
        ours.Time([&] { directory.ParseFile(file.Path()); });
        CheckCount(state, directory);
    }
    Report(state, ours, "400", plain);
}
BENCHMARK(ReadCommaSeparated)
    ->Arg(10000)
    ->Arg(100000)
    ->Arg(1000000)
    ->Iterations(5)
    ->Unit(benchmark::kMillisecond);

}  // namespace
