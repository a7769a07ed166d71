#include "interleaving/World.h"

#include <algorithm>
#include <cerrno>

using Record = KyTferStatusMsg;

namespace {

bool Begins(const std::string& text, const std::string& start) {
    return text.compare(0, start.size(), start) == 0;
}

/// The rows that fetches, listings and pushes may write: status and text; @ is the transfer's name.
const char* const kRows[] = {
    "|3 In Progress - No progress to report|3 File transfer inprogress|2 Retrieved file(@)|2 File Transfer "
    "Complete"
    "|4 Failed to get file(@)|4 File transfer cancelled|4 File transfer Failed - timeout|",
    "|3 In Progress - No progress to report|3 File transfer inprogress|3 Directory listing has been requested"
    "|2 Retrieved file(@)|2 Directory File Transfer Complete|4 Failed to get file(@)|4 File transfer "
    "cancelled"
    "|4 File transfer Failed - timedout|4 File transfer timed out|",
    "|3 In Progress|2 File Transfer Complete|4 Request failed|4 File transfer cancelled|"};

bool FitsStatus(const Record& row, const Transfer& transfer) {
    std::string text = row.GetStatusMsg();
    if (Begins(text, "File transfer cancelled: ")) text.resize(text.find(':'));
    const std::size_t name = text.find("(" + transfer.name + ")");
    if (name != std::string::npos) text = text.substr(0, name) + "(@)";
    const std::string shown = "|" + std::to_string(row.GetStatus()) + " " + text + "|";
    return std::string(kRows[transfer.action->kind]).find(shown) != std::string::npos;
}

std::string Shown(const Record& row) {
    return Record::GetStatusText(row.GetStatus()) + " \"" + row.GetStatusMsg() + "\" " +
           row.GetXferFullFilePath() + " (" + row.GetOrigFileName() + ")";
}

}  // namespace

World* World::s_current = nullptr;
const std::string World::kStaging = "/var/local/tal/pldserver/";
const std::string World::kLanding = kStaging + "3/";
const std::string World::kDownload = kLanding + "tferFiles/";
const std::string World::kSource = "/up/";
const std::string World::kListing = "DIRREQ";
const Action World::kNoFile = {"no file", Action::LISTING, Action::READY, Action::MISSING};

void World::Require(bool holds, const std::string& what) {
    if (!holds) scheduler.Fail(what);
}

bool World::AllocationFails() {
    if (memoryBack || scheduler.Random(shortage) != 0) return false;
    scheduler.Trace("no memory", "");
    return true;
}

template <typename Predicate>
bool World::Any(Predicate predicate) const {
    return std::any_of(m_transfers.begin(), m_transfers.end(), predicate);
}

Transfer& World::Add(const Action& action, int request, const std::string& name, unsigned size) {
    m_transfers.push_back({&action, request, name, size, ""});
    m_transfers.back().limit = (action.kind == Action::FETCH ? 180 : 60) * kSecond;
    return m_transfers.back();
}

Transfer* World::Last(const std::string& name) {
    const auto same = [&](const Transfer& transfer) { return transfer.name == name; };
    const auto found = std::find_if(m_transfers.rbegin(), m_transfers.rend(), same);
    return found == m_transfers.rend() ? nullptr : &*found;
}

bool World::Busy() const {
    if (m_row.GetStatus() == Record::TFER_STATUS_INPROGRESS) return true;
    if (current == nullptr) return false;
    const bool shown = m_row.GetXferFileName() == current->name;
    const bool open = current->status == Record::TFER_STATUS_NONE ||
                      current->status == Record::TFER_STATUS_INPROGRESS ||
                      (current->failed && current->watched && !current->reopened);
    return open && !shown;
}

// The record.

void World::Unlocked() {
    if (shortOfMemory) return;
    const Record row = engine.GetStatus("");
    if (Shown(row) != Shown(m_row)) Changed(row);
    // A listing takes its place before its row is written.
    const Role& me = Me();
    const bool asks = me.kind == Role::CALLER && me.transfer != nullptr && me.transfer->name == kListing;
    if (asks && me.transfer->began == 0 && !Busy()) Begin(*me.transfer);
}

void World::Changed(const Record& row) {
    scheduler.Trace("row", Shown(row));
    Transfer& transfer = Writer(row);
    CheckRow(row, transfer);
    Note(row, transfer);
    m_row = row;
    ++rows;
    scheduler.Wake(&rows);
}

/// The transaction that the row must belong to, by the fiber that has written it.
Transfer& World::Writer(const Record& row) {
    Role& me = Me();
    const bool push = row.GetFilePath() == kStaging;
    const bool inProgress = row.GetStatus() == Record::TFER_STATUS_INPROGRESS;
    bool names = me.kind == Role::DEVICE && inProgress;
    // The next request or status ends a transaction without a monitor, perhaps before its row was seen.
    if (!push && row.GetStatus() == Record::TFER_STATUS_FAIL && current != nullptr &&
        (!current->watched || current->reopened) && scheduler.Now() > current->began + current->limit)
        return row.GetXferFileName() == current->name ? *current : NameFile(row.GetXferFileName());
    if (me.kind == Role::PUSH_WORKER || me.kind == Role::WORKER) return *me.transfer;
    if (me.kind == Role::CALLER && me.transfer != nullptr) {
        const bool listing = me.transfer->action->kind == Action::LISTING;
        names = listing && inProgress && row.GetXferFileName() != kListing;
        if (me.transfer->began == 0) Begin(*me.transfer);
        if (!names) return listing ? *current : *me.transfer;
    }
    if (push) return *Last(row.GetOrigFileName());
    Require(current != nullptr, "a row belongs to a transaction");
    Require(me.kind != Role::MONITOR || me.transfer->request == current->request,
            "a monitor writes rows of its own transaction");
    return names && current->action->kind == Action::LISTING ? NameFile(row.GetXferFileName()) : *current;
}

Transfer& World::NameFile(const std::string& name) {
    const auto found = named.find(name);
    Require(found != named.end() || LongHeldUp(),
            "only the device names files of listings");  // or a late echo
    const Named said = found == named.end() ? Named{&kNoFile, 0, 0} : found->second;
    Transfer& file = Add(*said.action, current->request, name, said.size);
    file.began = current->began;
    file.watched = current->watched;
    file.repeated = current->repeated;
    file.reopened = current->reopened || current->status != Record::TFER_STATUS_INPROGRESS;
    file.crossed = said.request != current->request;
    current->replaced = true;
    Me().before = current = &file;
    return file;
}

void World::Begin(Transfer& transfer) {
    if (transfer.action->kind != Action::PUSH) {
        ReplaceAll();
        current = &transfer;
    }
    transfer.began = scheduler.Now();
}

void World::ReplaceAll() {
    for (Transfer& transfer : m_transfers) {
        if (transfer.began == 0 || std::exchange(transfer.replaced, true)) continue;
        transfer.cutShort = transfer.status == Record::TFER_STATUS_INPROGRESS || transfer.failed;
    }
}

void World::CheckRow(const Record& row, const Transfer& transfer) {
    const std::string& text = row.GetStatusMsg();
    const bool push = transfer.action->kind == Action::PUSH;
    const bool inProgress = row.GetStatus() == Record::TFER_STATUS_INPROGRESS;
    const bool retrieved = !inProgress && Begins(text, "Retrieved file(");
    Require(!transfer.replaced, "a transaction that was replaced or cancelled writes no row");
    Require(!transfer.completed, "a completed one writes no further row");
    Require(push ? row.GetOrigFileName() == transfer.name && row.GetXferFileName() == transfer.xferName
                 : row.GetXferFileName() == transfer.name,
            "a row has its own names");
    Require(row.GetFilePath() == (push        ? kStaging
                                  : retrieved ? kDownload
                                              : kLanding),
            "a row has its own path");
    // A fetch begins with the text of what was before, which has ended at the latest now.
    const bool before = text == m_row.GetStatusMsg() || Begins(text, "File transfer Failed - time");
    Require(FitsStatus(row, transfer) || (inProgress && !push && before), "status and text belong together");
    const bool whole = row.GetBytesTransfered() == transfer.size && row.GetBytesRequested() == transfer.size;
    Require(!retrieved || whole || LongHeldUp(), "a completed transaction has all its bytes");
}

void World::Note(const Record& row, Transfer& transfer) {
    Role& me = Me();
    const bool ended = row.GetStatus() != Record::TFER_STATUS_INPROGRESS;
    const bool complete = row.GetStatus() == Record::TFER_STATUS_COMPLETE;
    const bool before = transfer.status == Record::TFER_STATUS_INPROGRESS;
    const bool own =
        me.kind == Role::WORKER && (!ended || complete || Begins(row.GetStatusMsg(), "Failed to get"));
    if (me.kind == Role::MONITOR) {
        Require(transfer.status != Record::TFER_STATUS_COMPLETE, "a monitor leaves what is complete");
        Require(before || transfer.failed || ended, "a monitor does not open what has ended");
        Require(scheduler.Now() <= transfer.began + transfer.limit + kPatience + scheduler.HeldUp() ||
                    transfer.reopened,
                "a transaction ends within its limit");
    }
    const bool fails = own && ended && !complete && transfer.action->delivery == Action::WHOLE;
    Require(!fails || !transfer.reported || transfer.crossed || LongHeldUp(),
            "a worker does not fail what was reported complete");
    transfer.reopened = transfer.reopened || (own && !ended && transfer.status == Record::TFER_STATUS_FAIL);
    transfer.reported = transfer.reported || (complete && !own);
    transfer.completed = complete && own;
    if (own || ended) transfer.failed = own && ended && !complete && (before || transfer.failed);
    transfer.status = row.GetStatus();
    if (ended && Begins(row.GetStatusMsg(), "File transfer cancelled")) {
        transfer.cancelled = scheduler.Now();
        ReplaceAll();
    }
    if (!own || !ended) return;
    const bool other = row.GetStatusMsg().find("Expecting(") != std::string::npos;
    me.story += complete ? "complete " : other ? "other " : "missing ";
}

// The device and the files.

void World::Told(unsigned short point, const std::string& value) {
    Role& me = Me();
    if (me.kind == Role::WORKER) {
        if (!value.empty()) me.story += value + " ";
        me.transfer->told = me.transfer->told || value == "SUCCESS";
        me.transfer->left = me.transfer->left || value == "ERROR";
    } else if (me.transfer == nullptr) {
        Require(me.kind == Role::SERVICE || value.empty() || value == "NONE", "giving up is told as NONE");
    } else if (point == 8603) {
        me.transfer->xferName = value;
    } else {
        Require(
            value.empty() || value == (point == 8602 ? me.transfer->name : std::to_string(me.transfer->size)),
            "a request writes what it is about");
    }
}

void World::Asked(const std::string& name) {
    Role& me = Me();
    // The worker may have been taken for a monitor that could not start.
    if (shortOfMemory) me.kind = Role::WORKER;
    if (shortOfMemory && Last(name) != nullptr) me.transfer = Last(name);
    Require(me.kind == Role::WORKER && name == me.transfer->name, "a worker asks for its own file");
    me.story += "get ";
}

void World::Pushed(const std::string& directory, const std::string& name, const std::string& xferName) {
    Transfer& transfer = *Me().transfer;
    Require(directory == kStaging && name == transfer.name && xferName == transfer.xferName &&
                files.at(directory + name) == transfer.size,
            "a worker pushes its own file");
    ++transfer.pushed;
}

int World::Measure(const std::string& path, struct stat& info) {
    const auto file = files.find(path);
    if (file == files.end()) return ENOENT;
    info = {};
    info.st_mode = S_IFREG;
    info.st_size = file->second;
    return 0;
}

int World::Move(const std::string& from, const std::string& to) {
    Transfer& transfer = *Me().transfer;
    const bool fetched = Me().kind == Role::WORKER;
    Require(from == (fetched ? kLanding : kSource) + transfer.name &&
                to == (fetched ? kDownload : kStaging) + transfer.name,
            "a file is moved to its own place");
    if (fetched) Me().story += "move ";
    // A device that names a listing twice begins the file anew while it is being moved.
    if (transfer.action->answer != Action::TWICE)
        scheduler.Sleep(scheduler.Pick({0, 0, 10 * kMillisecond, kSecond}));
    if (fetched && transfer.action->fault == Action::MOVE) {
        transfer.left = true;
        return EXDEV;
    }
    const auto file = files.find(from);
    if (file == files.end()) return ENOENT;
    Require(file->second == transfer.size || LongHeldUp(), "only a whole file is moved");
    files[to] = file->second;
    files.erase(file);
    transfer.moved = true;
    return 0;
}

int World::Remove(const std::string& path) {
    if (Me().kind == Role::WORKER) {
        Require(path == kLanding + Me().transfer->name, "a worker removes its own file");
        Me().story += "remove ";
    }
    return files.erase(path) == 1 ? 0 : ENOENT;
}

// The threads.

bool World::ThreadStarts(Fiber& creator, Fiber& thread) {
    Role& by = m_roles[&creator];
    Role& role = m_roles[&thread];
    // A request's first thread is its monitor. The device may name the listing before there is one.
    const bool first = by.kind == Role::CALLER && by.story.empty();
    if (first) by.story = "first";
    role.transfer = first ? by.transfer : current;
    role.kind = !first                                        ? Role::WORKER
                : role.transfer->action->kind == Action::PUSH ? Role::PUSH_WORKER
                                                              : Role::MONITOR;
    role.late = !first && current != by.before;
    thread.name += " " + role.transfer->name;
    const bool monitor = role.kind == Role::MONITOR;
    const auto fault = monitor ? Action::MONITOR_THREAD : Action::WORKER_THREAD;
    if (role.transfer->action->fault == fault) return m_roles.erase(&thread) == 0;
    for (Transfer& transfer : m_transfers)
        transfer.watched = transfer.watched || (monitor && transfer.request == role.transfer->request);
    return true;
}

void World::ThreadEnds(Fiber& thread) {
    const Role& role = m_roles[&thread];
    if (shortOfMemory) return;
    if (role.kind == Role::WORKER) CheckStory(role);
    if (role.kind == Role::PUSH_WORKER) Require(role.transfer->pushed == 1, "a push asks the device once");
    Require(role.kind != Role::MONITOR || !Any([&](const Transfer& transfer) {
                return transfer.request == role.transfer->request && transfer.cancelled != 0 &&
                       scheduler.Now() > transfer.cancelled + kPatience + scheduler.HeldUp();
            }),
            "a monitor ends soon after its transaction was cancelled");
}

/// The allowed sequences of a worker's steps.
void World::CheckStory(const Role& role) {
    const Transfer& transfer = *role.transfer;
    const bool twice = transfer.action->answer == Action::TWICE;
    const bool gone = transfer.replaced || (twice && transfer.action->kind == Action::LISTING);
    const bool complete = transfer.completed || transfer.reported;
    const struct {
        const char* story;
        bool allowed;
    } kStories[] = {{"get move complete SUCCESS 0 ", true},
                    {"get move SUCCESS 0 ", complete || twice || transfer.crossed},
                    {"get 0 ", complete || transfer.moved || transfer.failed},
                    {"get other ERROR 0 ", true},
                    {"get ERROR 0 ", transfer.left || (transfer.reported && LongHeldUp())},
                    {"get missing 0 ", true},
                    {"get remove ", gone},
                    {"get ", gone},
                    {"", gone || role.late}};
    Require(std::any_of(std::begin(kStories), std::end(kStories),
                        [&](const auto& row) { return row.allowed && role.story == row.story; }),
            "a worker of " + transfer.name + " has done this: " + role.story);
}

// The end.

void World::CheckStopped(Time due) {
    Require(hung || scheduler.Now() <= due + scheduler.HeldUp(), "Stop ends what only waits");
    for (const auto& [fiber, role] : m_roles)
        Require(role.kind < Role::MONITOR || (fiber->ended && fiber->joined), "no thread is left after Stop");
}

void World::CheckEnd() {
    const auto status = engine.GetStatus("").GetStatus();
    Require(status != Record::TFER_STATUS_INPROGRESS && (stopping || status != Record::TFER_STATUS_NONE),
            "the last transaction has ended");
    if (shortOfMemory) return;
    Require(!Busy(), "nothing is in progress in the end");
    for (const Transfer& transfer : m_transfers)
        if (transfer.began != 0) CheckTransfer(transfer);
    for (const auto& file : files) {
        const bool mayStay = Any([&](const Transfer& transfer) {
            const Action& action = *transfer.action;
            const bool again = action.kind == Action::LISTING && action.answer == Action::TWICE;
            return kLanding + transfer.name == file.first &&
                   (transfer.left || action.delivery == Action::AFTERWARDS || again);
        });
        Require(mayStay || !Begins(file.first, kLanding) || Begins(file.first, kDownload),
                "a file is left at its landing path: " + file.first);
    }
}

/// A transaction that nothing disturbed must have ended as the device says.
void World::CheckTransfer(const Transfer& transfer) {
    const Action& action = *transfer.action;
    const bool well = action.delivery == Action::WHOLE && action.fault != Action::WORKER_THREAD;
    if (action.kind == Action::PUSH && !stopping)
        Require(transfer.pushed == (action.fault != Action::WORKER_THREAD), "an accepted push is made");
    const bool disturbed = Any([&](const Transfer& file) {
        return file.request == transfer.request && (file.cancelled != 0 || file.crossed);
    });
    if (disturbed || stopping || LongHeldUp()) return;
    if (action.kind == Action::PUSH) {
        if (action.delivery == Action::HANGING) return;
        Require(transfer.cutShort || (transfer.status == Record::TFER_STATUS_COMPLETE) == well,
                "a push ends as the device says");
        return;
    }
    if (action.delivery == Action::AFTERWARDS)
        Require(transfer.cutShort || transfer.reported,
                "a file that comes after its worker completes the transfer");
    if (!well || (action.answer != Action::READY && action.answer != Action::TWICE)) return;
    Require(Any([&](const Transfer& file) {
                return file.request == transfer.request && file.told &&
                       (file.moved || action.fault == Action::MOVE);
            }),
            "a good transfer ends well: " + transfer.name);
}
