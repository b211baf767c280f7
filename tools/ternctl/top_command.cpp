#include <tern/typed/decode.h>

#include <unistd.h>
#include <algorithm>
#include <map>
#include <optional>

#include "commands.h"
#include "findings.h"
#include "interrupt.h"
#include "json.h"
#include "look.h"
#include "output.h"
#include "parallel_calls.h"
#include "screen.h"
#include "survey.h"
#include "text.h"
#include "time_of_day.h"

namespace ternctl {

using Diagnostics::Diagnostics1;
using Diagnostics::Figures;
using mw::tern::StatusCode;
using Clock = Interrupt::Clock;
using namespace std::chrono_literals;

namespace {

/// Services come and go: they are looked for again after this time, or when one has gone.
constexpr auto SURVEY_PERIOD = 5s;

/// Columns of what is no screen: nothing is cut.
constexpr std::size_t WIDE = 10'000;
/// As long as a name on a bus can be.
constexpr std::size_t WIDEST_NAME = 255;
constexpr std::size_t SHORTEST_NAME = 20;
/// By the other columns, and some room for attention.
constexpr std::size_t TAKEN = 52;

/// A service between two looks.
struct Row {
    std::string name{};
    std::uint32_t pid = 0;
    std::string trouble{};  ///< why there are no figures; empty when there are
    std::optional<double> load{};
    std::optional<double> calls{};
    Figures figures{};
    std::vector<Finding> findings{};
};

double RateOf(std::uint64_t before, std::uint64_t now, std::uint64_t us) {
    return now >= before && us > 0 ? static_cast<double>(now - before) / static_cast<double>(us) : 0;
}

class Top {
public:
    explicit Top(const Options& options)
        : mOptions(options), mSession(options), mLimit(mSession.GetLimit(1s)), mLook(Look::OfOutput()) {}

    ExitStatus Run() {
        const Interrupt interrupt;
        std::optional<Screen> screen;
        if (mLook.isTerminal && isatty(STDIN_FILENO) == 1 && !mOptions.isJson && !mOptions.count) {
            screen.emplace();
        }
        std::uint64_t pages = 0;
        // Rates need two looks: without a screen the first one is not shown.
        bool isShown = screen.has_value();
        for (;; isShown = true) {
            const Clock::time_point begin = Clock::now();
            const std::vector<Row> rows = LookAtAll(interrupt);
            if (interrupt.IsStopped()) {
                break;
            }
            if (isShown) {
                Show(rows, screen ? &*screen : nullptr);
                ++pages;
            }
            if (mOptions.count && pages >= *mOptions.count) {
                break;
            }
            // Not immediately either where we were held up: rates need some time between two looks.
            const Clock::time_point next =
                std::max(begin + mOptions.period, Clock::now() + mOptions.period / 2);
            if (Rest(interrupt, next, screen.has_value())) {
                break;
            }
        }
        return ExitStatus::Done;
    }

private:
    /// Whether the person has had enough.
    static bool Rest(const Interrupt& interrupt, Clock::time_point end, bool hasKeys) {
        for (;;) {
            switch (interrupt.WaitUntil(end, hasKeys ? STDIN_FILENO : -1)) {
                case Interrupt::Reason::Time:
                    return false;
                case Interrupt::Reason::Stopped:
                    return true;
                case Interrupt::Reason::Input: {
                    char key = 0;
                    if (read(STDIN_FILENO, &key, 1) != 1 || key == 'q' || key == 'Q') {
                        return true;  // also when the terminal has gone
                    }
                    break;
                }
            }
        }
    }

    std::vector<Row> LookAtAll(const Interrupt& interrupt) {
        if (mHasLeft || !mSurveyedAt || Clock::now() - *mSurveyedAt >= SURVEY_PERIOD) {
            mSurvey = LookAround(mSession, mLimit, &interrupt);
            mSurveyedAt = Clock::now();
            mHasLeft = false;
            std::erase_if(mFormer, [this](const auto& one) {
                return std::none_of(mSurvey.services.begin(), mSurvey.services.end(),
                                    [&one](const Found& service) { return service.owner == one.first; });
            });
        }
        std::vector<Row> rows;
        ParallelCalls calls(mSession.GetBus(), mLimit);
        for (const Found& service : mSurvey.services) {
            calls.Add(service.owner, Diagnostics1::PATH, Diagnostics1::NAME, Diagnostics1::Snapshot.name, {},
                      [this, &rows, &service](sd_bus_message* reply) { Take(rows, service, reply); });
        }
        calls.Run(&interrupt);
        for (const std::string& name : mSurvey.unanswered) {
            rows.push_back({name, 0, "does not answer"});
        }
        std::stable_sort(rows.begin(), rows.end(), [](const Row& a, const Row& b) {
            const double loadOfA = a.load.value_or(-1);
            const double loadOfB = b.load.value_or(-1);
            return loadOfA > loadOfB || (loadOfA == loadOfB && a.name < b.name);
        });
        return rows;
    }

    void Take(std::vector<Row>& rows, const Found& service, sd_bus_message* reply) {
        Typed::Outcome<Figures> figures = Typed::Decode<Figures>(reply);
        if (!figures.IsOk()) {
            const Typed::Error& error = figures.GetError();
            if (error.GetStatus() == StatusCode::NotFound) {
                mHasLeft = true;  // the name, or the object
                mFormer.erase(service.owner);
                return;
            }
            rows.push_back({service.name, service.pid,
                            error.GetStatus() == StatusCode::AccessDenied ? "access denied"
                            : error.GetStatus() == StatusCode::Timeout
                                ? "does not answer"
                                : Explain(error, service.name, mLimit).what()});
            return;
        }
        Row row{service.name, service.pid, ""};
        row.figures = *std::move(figures);
        const auto former = mFormer.find(service.owner);
        const Figures* const before = former != mFormer.end() ? &former->second : nullptr;
        row.findings = FindTrouble(row.figures, before);
        if (before != nullptr) {
            // By the service's own clock, which its other figures are of.
            const std::uint64_t us = row.figures.process.uptimeUs - before->process.uptimeUs;
            row.load = RateOf(before->process.processorUs, row.figures.process.processorUs, us);
            row.calls = RateOf(before->busThread.handled, row.figures.busThread.handled, us) * 1e6;
        }
        mFormer[service.owner] = row.figures;
        rows.push_back(std::move(row));
    }

    void Show(const std::vector<Row>& rows, Screen* screen) {
        if (mOptions.isJson) {
            PrintLine(MakeJson(rows));
            return;
        }
        mLook = Look::OfOutput();
        if (!mLook.isTerminal) {
            mLook.columns = WIDE;
        }
        const std::vector<Line> lines = MakePage(rows);
        if (screen != nullptr) {
            screen->Show(lines, mLook);
            return;
        }
        std::string page;
        for (const Line& line : lines) {
            page += Render(line, mLook) + '\n';
        }
        Print(page + '\n');
    }

    std::vector<Line> MakePage(const std::vector<Row>& rows) const {
        std::size_t width = 4;
        for (const Row& row : rows) {
            width = std::max(width, Width(mLook.Show(row.name)));
        }
        width = std::min({width, std::max(mLook.columns, TAKEN + SHORTEST_NAME) - TAKEN, WIDEST_NAME});
        std::vector<Line> lines{
            {DateTime(TimeOfDay()) + ", " + Count(rows.size()) +
                 (rows.size() == 1 ? " service" : " services"),
             false, true},
            {"  LOAD     MEMORY   MSG/S      PID  " + PadRight("NAME", width) + "  ATTENTION", false, true}};
        for (const Row& row : rows) {
            lines.push_back(MakeLine(row, width));
        }
        return lines;
    }

    Line MakeLine(const Row& row, std::size_t width) const {
        const bool isKnown = row.trouble.empty();
        std::string attention = row.trouble;
        for (const Finding& finding : row.findings) {
            attention += (attention.empty() ? "" : "; ") + finding.text;
        }
        return {PadLeft(row.load ? Format("%.1f%%", *row.load * 100) : "-", 6) +
                    PadLeft(isKnown ? Bytes(row.figures.process.memoryBytes) : "-", 11) +
                    PadLeft(row.calls ? Format("%.0f", *row.calls) : "-", 8) +
                    PadLeft(row.pid != 0 ? std::to_string(row.pid) : "-", 9) + "  " +
                    PadRight(FitEnd(mLook.Show(row.name), width, mLook.GetMore()), width) + "  " +
                    mLook.Show(attention),
                !attention.empty(), false};
    }

    std::string MakeJson(const std::vector<Row>& rows) const {
        JsonWriter json;
        json.Begin('{').Add("TakenAtUs", TimeOfDay()).Key("Services").Begin('[');
        for (const Row& row : rows) {
            json.Begin('{').Add("Name", row.name).Key("Pid");
            row.pid != 0 ? json.Value(row.pid) : json.Null();
            json.Key("Load");
            row.load ? json.Value(*row.load) : json.Null();
            json.Key("MessagesPerSecond");
            row.calls ? json.Value(*row.calls) : json.Null();
            json.Key("MemoryBytes");
            row.trouble.empty() ? json.Value(row.figures.process.memoryBytes) : json.Null();
            json.Key("Trouble");
            row.trouble.empty() ? json.Null() : json.Value(row.trouble);
            json.Key("Attention").Begin('[');
            for (const Finding& finding : row.findings) {
                json.Value(finding.text);
            }
            json.End(']').End('}');
        }
        return json.End(']').End('}').GetText();
    }

    const Options& mOptions;
    const Session mSession;
    const std::chrono::milliseconds mLimit;
    Look mLook;
    Survey mSurvey;
    std::optional<Clock::time_point> mSurveyedAt;
    bool mHasLeft = false;
    std::map<std::string, Figures> mFormer;  ///< by connection
};

}  // namespace

ExitStatus RunTop(const Options& options) {
    return Top(options).Run();
}

}  // namespace ternctl
