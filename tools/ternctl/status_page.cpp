#include "status_page.h"

#include <algorithm>
#include <utility>

#include "latency.h"
#include "message_lines.h"
#include "text.h"

namespace ternctl {

using Diagnostics::ComponentFigures;
using Diagnostics::LoggedMessage;
using Diagnostics::MemberFigures;
using Diagnostics::PipeFigures;
using Diagnostics::PoolFigures;
using Diagnostics::SupervisedThread;
using Diagnostics::TimerFigures;
using Diagnostics::WatchedThread;

namespace {

/// A table: a heading, and a line for each thing.
struct Table {
    Line heading{};
    std::vector<Line> rows{};
    std::size_t shown = 0;
};

std::string Percent(double part) {
    return Format(part < 0.0995 ? "%.1f %%" : "%.0f %%", part * 100);
}

std::string Right(const std::string& text, std::size_t width) {
    return PadLeft(text, width);
}

/// Without the number of the thread that the library puts in front, for which a page has no room.
LoggedMessage WithoutThread(LoggedMessage message) {
    const std::size_t end = message.text.find_first_not_of("0123456789", 1);
    if (message.text.starts_with('[') && end != std::string::npos && end > 1 && message.text[end] == ']') {
        message.text.erase(0, end + 1);
    }
    return message;
}

class Page {
public:
    Page(const Status& status, const Look& look) : mStatus(status), mFigures(status.figures), mLook(look) {}

    std::vector<Line> Make(std::size_t rows) {
        Head();
        Threads();
        Watched();
        Pools();
        Components();
        Timers();
        Pipes();
        Messages();
        Members();
        Distribute(rows);
        for (Table& table : mTables) {
            Append(std::move(table));
        }
        return std::move(mLines);
    }

private:
    bool IsFound(Part part, std::size_t index = 0) const {
        return std::any_of(mStatus.findings.begin(), mStatus.findings.end(),
                           [&](const Finding& one) { return one.part == part && one.index == index; });
    }
    std::string Show(const std::string& text) const { return mLook.Show(text); }
    /// Members are distinguished by their ends.
    std::string ShowEnd(const std::string& text, std::size_t taken) const {
        const std::size_t room = mLook.columns > taken + 2 ? mLook.columns - taken - 2 : 0;
        return FitEnd(Show(text), std::max<std::size_t>(room, 8), mLook.GetMore());
    }
    void Add(std::string text, bool isMarked = false, bool isHeading = false) {
        mLines.push_back({std::move(text), isMarked, isHeading});
    }

    void Head() {
        const auto& process = mFigures.process;
        std::string title = Show(mStatus.name);
        if (!process.version.empty()) {
            title += " " + Show(process.version);
        }
        Add(title + ", up " + Duration(process.uptimeUs) + ", looked at " + DateTime(mFigures.takenAtUs),
            false, true);
        Add("Process     " + Show(process.program) + ", pid " + std::to_string(process.pid) + ", library " +
            Show(process.libraryVersion) + ", log level " + Show(mStatus.facts.logLevel));
        const double load = process.uptimeUs > 0 ? static_cast<double>(process.processorUs) /
                                                       static_cast<double>(process.uptimeUs)
                                                 : 0;
        Add("            processor " + Duration(process.processorUs) + " (" + Percent(load) + "), memory " +
            Bytes(process.memoryBytes) +
            (process.memoryPeakBytes > 0 ? " (peak " + Bytes(process.memoryPeakBytes) + ")" : ""));
        Add("            descriptors " + Count(process.descriptors) + " of " +
                Count(process.descriptorLimit) + ", threads " + Count(process.threads),
            IsFound(Part::Process));
        const std::string& ended = mStatus.facts.ended;
        if (ended != "none") {
            Add("Former life " + Show(ended) + ", " + Count(mStatus.facts.restarts) +
                    (mStatus.facts.restarts == 1 ? " restart" : " restarts") + ": see ternctl why",
                ended != "stopped");
        }
        const auto& thread = mFigures.busThread;
        Add("D-Bus       thread " + std::to_string(thread.threadId) + ", handled " + Count(thread.handled) +
            ", turns " + Count(thread.turns) + ", longest turn " + Duration(thread.longestTurnUs));
        const std::string time = Duration(thread.runningUs);
        // The look itself is what runs while it is answered.
        const bool isIdle = thread.running.empty() ||
                            thread.running == std::string(Diagnostics::Diagnostics1::NAME) + ".Snapshot";
        Add(isIdle ? "            idle"
                   : "            runs " + ShowEnd(thread.running, 22 + Width(time)) + " for " + time,
            IsFound(Part::Handler));
        Add(thread.watchdogUs == 0 ? "            no watchdog"
                                   : "            watchdog " + Duration(thread.watchdogUs) +
                                         ", smallest margin " + Duration(thread.watchdogMarginUs),
            IsFound(Part::Watchdog));
        const auto& connection = mFigures.connection;
        Add("Connection  " + Show(connection.uniqueName) + ", in " + Count(connection.queuedIn) + ", out " +
                Count(connection.queuedOut) + ", jobs " + Count(connection.waitingJobs) + ", calls open " +
                Count(connection.openCalls) + ", pending " + Count(connection.pendingCalls) + ", objects " +
                Count(connection.objects),
            IsFound(Part::QueuedIn) || IsFound(Part::QueuedOut) || IsFound(Part::WaitingJobs));
        const auto& recorder = mFigures.recorder;
        std::string text = "Recorder    off";
        if (recorder.isRecording) {
            text = "Recorder    " + Count(recorder.events) + " events, keeps " + Count(recorder.capacity) +
                   " in " + Bytes(recorder.bytes) + (recorder.isStored ? ", stored" : ", not stored");
        }
        if (recorder.namesLost > 0 || recorder.threadsLost > 0) {
            text +=
                ", lost " + Count(recorder.namesLost) + " names, " + Count(recorder.threadsLost) + " threads";
        }
        Add(text + (recorder.hasMessages ? "" : ", no messages"));
    }

    Table& AddTable(std::string heading) {
        mTables.emplace_back();
        mTables.back().heading = {std::move(heading), false, true};
        return mTables.back();
    }
    void AddRow(Table& table, std::string text, bool isMarked) {
        table.rows.push_back({std::move(text), isMarked, false});
    }

    void Threads() {
        Table& table = AddTable("Threads            ID  STATE     NAME");
        for (std::size_t i = 0; i < mFigures.threads.size(); ++i) {
            const SupervisedThread& thread = mFigures.threads[i];
            AddRow(table,
                   Right(thread.threadId != 0 ? std::to_string(thread.threadId) : "-", 21) + "  " +
                       PadRight(Show(thread.state), 8) + "  " + Show(thread.name),
                   IsFound(Part::Thread, i));
        }
    }

    void Watched() {
        Table& table = AddTable("Watched        PERIOD      LIMIT     SILENT     MARGIN       ID  NAME");
        for (std::size_t i = 0; i < mFigures.watched.size(); ++i) {
            const WatchedThread& thread = mFigures.watched[i];
            AddRow(table,
                   Right(Duration(thread.periodUs), 21) + Right(Duration(thread.limitUs), 11) +
                       Right(Duration(thread.silentUs), 11) + Right(Duration(thread.marginUs), 11) +
                       Right(std::to_string(thread.threadId), 9) + "  " + Show(thread.name),
                   IsFound(Part::Watched, i));
        }
    }

    void Pools() {
        Table& table =
            AddTable("Pools         THREADS       BUSY     QUEUED       DONE    LONGEST    RUNNING");
        for (std::size_t i = 0; i < mFigures.pools.size(); ++i) {
            const PoolFigures& pool = mFigures.pools[i];
            AddRow(table,
                   Right(Count(pool.threads), 21) + Right(Count(pool.busy), 11) +
                       Right(Count(pool.queued), 11) + Right(Count(pool.done), 11) +
                       Right(Duration(pool.longestUs), 11) +
                       Right(pool.runningUs > 0 ? Duration(pool.runningUs) : "-", 11),
                   IsFound(Part::Pool, i));
        }
    }

    void Components() {
        Table& table = AddTable("Components   WAKE-UPS       RUNS    LONGEST    RUNNING  NAME");
        for (std::size_t i = 0; i < mFigures.components.size(); ++i) {
            const ComponentFigures& component = mFigures.components[i];
            AddRow(table,
                   Right(Count(component.wakeUps), 21) + Right(Count(component.runs), 11) +
                       Right(Duration(component.longestUs), 11) +
                       Right(component.runningUs > 0 ? Duration(component.runningUs) : "-", 11) + "  " +
                       Show(component.name),
                   IsFound(Part::Component, i));
        }
    }

    void Timers() {
        Table& table = AddTable("Timers         PERIOD   EXPIRIES     LATEST    LONGEST  KIND");
        for (const TimerFigures& timer : mFigures.timers) {
            AddRow(table,
                   Right(Duration(timer.periodUs), 21) + Right(Count(timer.expiries), 11) +
                       Right(timer.kind == "ShortPeriodTimer" ? "-" : Duration(timer.latestUs), 11) +
                       Right(Duration(timer.longestUs), 11) + "  " + Show(timer.kind) +
                       (timer.isPeriodic ? "" : ", once"),
                   false);
        }
    }

    void Pipes() {
        Table& table = AddTable("Pipes         WRITTEN       READ    WAITING       FULL   LONGEST WAIT");
        for (std::size_t i = 0; i < mFigures.pipes.size(); ++i) {
            const PipeFigures& pipe = mFigures.pipes[i];
            AddRow(table,
                   Right(Count(pipe.written), 21) + Right(Count(pipe.read), 11) +
                       Right(Count(BacklogOf(pipe)), 11) + Right(Count(pipe.full), 11) +
                       Right(Duration(pipe.longestWaitUs), 15),
                   IsFound(Part::Pipe, i));
        }
    }

    /// The latest first: it is the one to begin with.
    void Messages() {
        Table& table = AddTable("Messages    TIME                 LEVEL     TEXT");
        for (auto message = mStatus.messages.rbegin(); message != mStatus.messages.rend(); ++message) {
            AddRow(table,
                   "            " + DateTime(message->atUs) + "  " + PadRight(NameLevel(message->level), 8) +
                       "  " + ShowText(WithoutThread(*message), mLook),
                   false);
        }
    }

    void Members() {
        Table& table =
            AddTable(std::string("Members     MEAN     99 %  LONGEST  ") + Latency::GetScale() + "  NAME");
        for (const MemberFigures& member : mFigures.busThread.members) {
            const Latency latency(member.latency);
            // The longest is known exactly, the percentile up to its bucket.
            const double most = std::min(latency.GetPercentile(0.99), static_cast<double>(member.longestUs));
            const std::string figures =
                Right(Count(member.handled), 7) +
                Right(Duration(member.handled > 0 ? member.totalUs / member.handled : 0), 9) +
                Right(Duration(static_cast<std::uint64_t>(most)), 9) + Right(Duration(member.longestUs), 9) +
                "  " + latency.Draw(mLook.isUtf8) + "  ";
            AddRow(table, figures + ShowEnd(member.name, Width(figures)), false);
        }
    }

    /// Shares the rows that are left among the tables; each has one for its heading and, where it is not
    /// shown whole, one for what is left out.
    void Distribute(std::size_t rows) {
        std::erase_if(mTables, [](const Table& table) { return table.rows.empty(); });
        std::size_t left = rows > mLines.size() ? rows - mLines.size() : 0;
        for (Table& table : mTables) {
            std::stable_partition(table.rows.begin(), table.rows.end(),
                                  [](const Line& row) { return row.isMarked; });
            left -= std::min<std::size_t>(left, 2);
        }
        // The second row of each is the one that says how many more, or the last one.
        for (bool isGiven = true; isGiven && left > 0;) {
            isGiven = false;
            for (Table& table : mTables) {
                if (left > 0 && table.shown + 1 < table.rows.size()) {
                    ++table.shown;
                    --left;
                    isGiven = true;
                }
            }
        }
        for (Table& table : mTables) {
            if (table.shown + 1 == table.rows.size()) {
                ++table.shown;
            }
        }
    }

    void Append(Table table) {
        mLines.push_back(std::move(table.heading));
        const std::size_t count = table.rows.size();
        for (std::size_t i = 0; i < table.shown; ++i) {
            mLines.push_back(std::move(table.rows[i]));
        }
        if (table.shown < count) {
            const bool isMarked = table.rows[table.shown].isMarked;
            Add(Right("", 12) + "and " + Count(count - table.shown) + (table.shown > 0 ? " more" : "") +
                    ": see --full",
                isMarked);
        }
    }

    const Status& mStatus;
    const Diagnostics::Figures& mFigures;
    const Look& mLook;
    std::vector<Line> mLines;
    std::vector<Table> mTables;
};

}  // namespace

std::vector<Line> MakeStatusPage(const Status& status, const Look& look, std::size_t rows) {
    return Page(status, look).Make(rows);
}

}  // namespace ternctl
