// The commands that need no file of their own: status, ls and cancel.
#include "tferctl/Commands.h"

#include "common/Text.h"
#include "tferctl/ExitStatus.h"
#include "tferctl/Listing.h"
#include "tferctl/Record.h"
#include "tferctl/Table.h"

namespace ky_tferctl {
namespace {

constexpr char s_context[] = "tferctl";

/// Shows the record while it changes. Where there is no terminal, each tenth of the way is one more piece of
/// output.
class StatusView {
public:
    explicit StatusView(const Context& context) : m_out(context.out), m_json(context.options.json) {}

    void Change(const KyTferStatusMsg& record) {
        const std::string stage = Stage(record);
        if (m_out.IsTerminal() && !m_json) {
            m_out.Redraw(Summary(record));
        } else if (stage != m_lastStage) {
            m_out.Line(m_json ? record.GetJsonStatus() : Summary(record));
        }
        m_lastStage = stage;
    }

    void Final(const KyTferStatusMsg& record) {
        m_out.Line(m_json ? record.GetJsonStatus() : Description(record));
    }

private:
    static std::string Stage(const KyTferStatusMsg& record) {
        return std::to_string(record.GetStatus()) + "|" + record.GetXferFileName() + "|" +
               record.GetStatusMsg() + "|" + std::to_string(Percent(record) / 10);
    }

    ky_tools::Console& m_out;
    const bool m_json;
    std::string m_lastStage;
};

/// @return the record at the end; `record` itself if nothing is in progress
KyTferStatusMsg Watch(const Context& context, KyTferStatusMsg record, StatusView& view) {
    Standstill standstill(context.options.timeOut);
    while (IsUnderWay(record)) {
        view.Change(record);
        if (standstill.Lasts(record))
            throw Failure(ExitStatus::TIMED_OUT, "The transfer does not come to its end: " + Summary(record));
        standstill.Pause();
        record = context.service.Status();
    }
    return record;
}

std::string ShownRange(std::size_t shown, std::size_t all, unsigned int skip) {
    const std::string files = all == 1 ? " file" : " files";
    if (shown == all) return std::to_string(all) + files;
    if (shown == 0) return "None of " + std::to_string(all) + files;
    return "Files " + std::to_string(skip + 1ULL) + " to " + std::to_string(skip + shown) + " of " +
           std::to_string(all);
}

std::string PageTable(const std::vector<KyTferDirEntry>& page) {
    Table table({"NAME", "TRANSFER NAME", "TYPE", "BYTES", "DATE"},
                {Table::Align::LEFT, Table::Align::LEFT, Table::Align::LEFT, Table::Align::RIGHT,
                 Table::Align::LEFT});
    for (const KyTferDirEntry& entry : page)
        table.Add({entry.GetOrigFileName(), entry.GetXferFileName(), entry.GetFileType(),
                   std::to_string(entry.GetFileSizeInBytes()), entry.GetDateTimeAsString()});
    return table.Text();
}

}  // namespace

void RunStatus(const Context& context) {
    StatusView view(context);
    const KyTferStatusMsg first = context.service.Status();
    if (!context.options.watch || !IsUnderWay(first)) return view.Final(first);
    const KyTferStatusMsg last = Watch(context, first, view);
    view.Final(last);
    if (last.GetStatus() == KyTferStatusMsg::TFER_STATUS_FAIL)
        throw Failure(ExitStatus::FAILED,
                      "The transfer has failed: " + ky_tools::Printable(last.GetStatusMsg()));
}

void RunList(const Context& context) {
    const Options& options = context.options;
    Transactions transactions(context.service, options, context.notices);
    Listing listing;
    FetchListing(transactions, context.notices, listing);
    if (options.json) {
        context.out.Line(listing.files.GetEntryListAsJSONString(s_context, options.skip, options.take, "",
                                                                listing.status));
        return;
    }
    const auto page = listing.files.GetEntryList(options.skip, options.take);
    const std::size_t all = listing.files.GetEntryList(0, std::numeric_limits<unsigned int>::max()).size();
    context.out.Line(PageTable(page));
    context.out.Line(ShownRange(page.size(), all, options.skip));
}

void RunCancel(const Context& context) {
    const Answer answer = context.service.Cancel(context.options.subject);
    if (!answer.accepted) throw Failure(ExitStatus::REFUSED, ky_tools::Printable(answer.text));
    context.out.Line("The transfer has been cancelled.");
}

}  // namespace ky_tferctl
