"""Which figures of which Google Benchmark program make which row of docs/performance.md.

Programs called *_comparison need no entry: they write their rows themselves (see report.py).
"""

from dataclasses import dataclass, field

OURS = "tern"

# "Level" leaves what a shared machine blurs; "ahead" does not.
LEVEL = 1.05
AHEAD = 1.00


@dataclass
class Row:
    what: str
    unit: str
    metric: str  # real_time, cpu_time (converted into the unit) or the name of a counter (which has it)
    names: dict  # side -> name of the benchmark
    target: str = ""
    against: object = None  # a side, or several: the best of them then
    limit: float = None  # largest ratio to it
    ahead_of: tuple = ()  # sides that ours must not cost more than: a criterion of its own
    most: float = None  # or: largest value of ours
    per: float = 1  # divide by


@dataclass
class Growth:
    what: str
    unit: str
    metric: str
    names: dict  # amount of work -> name of the benchmark
    limit: float = None  # largest exponent


@dataclass
class Section:
    name: str
    title: str
    program: str  # below build/release/benchmarks
    rows: list
    growth: list = field(default_factory=list)
    rounds: int = 5  # runs of the program
    repetitions: int = 3  # of each benchmark in a run, interleaved at random
    min_time: float = 0.1  # seconds per repetition
    scale: float = 1.0  # part of the full amount that a default run takes
    scale_note: bool = False  # whether the rows name an amount that the scale changes


def sides(pattern, **placeholders):
    """The names of the sides' benchmarks: what stands in for {} in the pattern, by side."""
    return {side: pattern.replace("{}", text) for side, text in placeholders.pop("of").items()}


# n log n from 100 to 10,000 has the exponent 1.15; the rest is what larger amounts lose in the caches.
N_LOG_N = 1.25

STANDARD = {OURS: "Tern", "standard library": "Std"}
POOLS = {OURS: "TernPool", "Boost.Asio": "AsioPool", "oneTBB": "TbbPool"}
PIPES = {OURS: "Framework", "raw pipe": "Raw", "eventfd and queue": "EventfdWithQueue"}
TIMERS = {
    OURS: "WithShortPeriodTimer",
    "timerfd in sd-event": "WithTimerfdInSdEvent",
    "Boost.Asio": "WithSteadyTimer",
    "tern, Timer": "WithTimer",
}
RUNNERS = {OURS: "RunCommand", "posix_spawn": "Spawn", "GLib": "RunGlib", "Boost.Process": "RunBoost"}


def pool_rows():
    rows = []
    for producers in (1, 4):
        for workers in (1, 2, 4):
            for metric, words in (("real_time", "time"), ("cpu_time", "processor time")):
                rows.append(
                    Row(
                        f"a job, {producers} to queue, {workers} to run: {words}",
                        "ns",
                        metric,
                        sides(
                            f"BM_QueueAndRun<{{}}>/producers:{producers}/workers:{workers}/process_time/real_time",
                            of=POOLS,
                        ),
                        "level with the better one",
                        ("Boost.Asio", "oneTBB"),
                        LEVEL,
                        per=20000,
                    )
                )
    for metric, words in (("real_time", "time"), ("cpu_time", "processor time")):
        rows.append(
            Row(
                f"one job, queued to an idle worker and waited for: {words}",
                "us",
                metric,
                sides("BM_RoundTrip<{}>/process_time/real_time", of=POOLS),
                "level with the better one",
                ("Boost.Asio", "oneTBB"),
                LEVEL,
            )
        )
    return rows


def timer_rows():
    rows = []
    for period, ticks in ((1, 3000), (10, 300)):
        for counter, words in (
            ("late_median_us", "late, median"),
            ("late_p99_us", "late, p99"),
            ("cpu_per_tick_us", "processor time"),
        ):
            rows.append(
                Row(
                    f"a tick every {period} ms: {words}",
                    "us",
                    counter,
                    sides(
                        f"PeriodicTick<{{}}>/period_ms:{period}/ticks:{ticks}/iterations:1/real_time", of=TIMERS
                    ),
                    "level with the better one",
                    ("timerfd in sd-event", "Boost.Asio"),
                    LEVEL,
                )
            )
    return rows


def command_rows():
    rows = []
    spawned = [
        ("running /bin/true", "us", "Nothing<{}>/used_mib:0/real_time"),
        ("running /bin/true with 256 MiB in use", "us", "Nothing<{}>/used_mib:256/real_time"),
        ("collecting 100 MiB", "ms", "Output100MiB<{}>/real_time"),
        ("feeding 100 MiB", "ms", "Input100MiB<{}>/real_time"),
    ]
    for what, unit, pattern in spawned:
        names = sides(pattern, of=RUNNERS)
        if what.startswith("feeding"):
            names["GLib"] = pattern.replace("{}", "RunGlibWithInput")
        rows.append(
            Row(
                what,
                unit,
                "real_time",
                names,
                "at most 1.3 of posix_spawn",
                "posix_spawn",
                1.3,
                ("GLib", "Boost.Process"),
            )
        )
    return rows


def zip_rows():
    rows = []
    for aes, words in ((0, ""), (1, " with AES")):
        rows.append(
            Row(
                f"zip 200 MiB{words}",
                "ms",
                "real_time",
                sides(f"{{}}/aes:{aes}/real_time", of={OURS: "ZipZipper", "libzip": "ZipPlain"})
                | {"7z": f"Zip7z/aes:{aes}/repeats:1/real_time"},
                "at most 1.02 of libzip",
                "libzip",
                1.02,
            )
        )
        names = sides(f"{{}}/aes:{aes}/real_time", of={OURS: "UnzipZipper", "libzip": "UnzipPlain", "7z": "Unzip7z"})
        against = "libzip"
        if aes:
            names["libzip, code checked"] = "UnzipPlainAuthenticated/aes:1/real_time"
            against = "libzip, code checked"
        rows.append(
            Row(f"unzip 200 MiB{words}", "ms", "real_time", names, f"at most 1.02 of {against}", against, 1.02)
        )
    return rows


def file_rows():
    works = [
        ("copying 10,000 files of 1000 bytes", "MakeSmallFiles", "CopyByLibrary", "cp -r", "CopyByCp"),
        ("copying a file of 1 GiB", "MakeBigFile", "CopyByLibrary", "cp -r", "CopyByCp"),
        ("deleting 10,000 files", "MakeSmallFiles", "DeleteByLibrary", "rm -r", "DeleteByRm"),
        ("disk usage of 10,000 files", "MakeSmallFiles", "UsageByLibrary", "du", "UsageByDu"),
    ]
    return [
        Row(
            f"{what}: {words}",
            "ms",
            metric,
            {OURS: f"Measure/{make}_{ours}/manual_time", peer: f"Measure/{make}_{theirs}/manual_time"},
            "ahead or level",
            peer,
            LEVEL,
        )
        for what, make, ours, peer, theirs in works
        for metric, words in (("real_time", "time"), ("cpu_ms", "processor time"))
    ]


def flattening_rows():
    rows = []
    flatten = {
        OURS: "FlattenIntoValuesList",
        "plain loop": "FlattenPlainly",
        "sdbus-c++": "FlattenWithSdbusCpp",
        "GVariant, from bytes": "FlattenGDBusMessage",
        "GVariant, given": "FlattenGVariantGiven",
    }
    for form in ("flat", "nested"):
        for entries in (1, 10, 100, 1000):
            rows.append(
                Row(
                    f"an entry of {entries:,}, {form}",
                    "ns",
                    "cpu_time",
                    sides(f"{{}}/{form}/{entries}", of=flatten),
                    "at most 1.1 of the plain loop",
                    "plain loop",
                    1.1,
                    ("sdbus-c++", "GVariant, from bytes"),
                    per=entries,
                )
            )
    for form in ("flat", "nested"):
        counted = {side: name for side, name in flatten.items() if not side.startswith("GVariant")}
        rows.append(
            Row(f"allocations per entry of 100, {form}", "", "allocs/entry", sides(f"{{}}/{form}/100", of=counted))
        )
    lookups = {
        OURS: "LookUpInValuesList",
        "plain loop": "LookUpPlainly",
        "sdbus-c++": "LookUpWithSdbusCpp",
        "GVariant, given": "LookUpInHashTable",
    }
    for entries in (10, 100, 1000):
        rows.append(
            Row(
                f"a value looked up among {entries:,}",
                "ns",
                "cpu_time",
                sides(f"{{}}/{entries}", of=lookups),
                "at most 1.1 of the plain loop",
                "plain loop",
                1.1,
                ("sdbus-c++",),
            )
        )
    return rows


def growth(what, unit, metric, pattern, amounts, limit=N_LOG_N):
    return Growth(what, unit, metric, {amount: pattern.replace("{}", str(amount)) for amount in amounts}, limit)


SECTIONS = [
    Section(
        "logging",
        "Log calls",
        "foundation/log_benchmark",
        [
            Row(
                "below the threshold",
                "ns",
                "cpu_time",
                {OURS: "BelowThreshold<Tern>", "spdlog": "BelowThreshold<Spdlog>", "empty loop": "EmptyLoop"},
                "at most 1 ns",
                most=1.0,
            ),
            Row(
                "below the threshold: allocations",
                "",
                "allocations",
                sides("BelowThreshold<{}>", of={OURS: "Tern", "spdlog": "Spdlog"}),
                "none",
                most=0,
            ),
            Row(
                "above the threshold",
                "ns",
                "cpu_time",
                sides("AboveThreshold<{}>", of={OURS: "Tern", "spdlog": "Spdlog"}),
                "ahead",
                "spdlog",
                AHEAD,
            ),
        ],
    ),
    Section(
        "locks",
        "Locks",
        "threading/lock_benchmark",
        [
            Row(
                f"lock and unlock, {threads} thread{'s' if threads > 1 else ''}",
                "ns",
                metric,
                sides(
                    f"{{}}/real_time/threads:{threads}",
                    of={OURS: "BM_Lock", "std::recursive_mutex": "BM_StdRecursiveMutex"},
                ),
                "level",
                "std::recursive_mutex",
                LEVEL,
            )
            for threads, metric in ((1, "cpu_time"), (2, "cpu_time"), (4, "cpu_time"))
        ],
    ),
    Section(
        "waits",
        "Timed waits",
        "threading/condition_variable_benchmark",
        [
            Row(what, unit, metric, sides(pattern, of=STANDARD), "level", "standard library", LEVEL)
            for what, unit, metric, pattern in (
                ("a wait that expires", "us", "cpu_time", "BM_ExpiredWait<{}>"),
                ("a wait whose predicate holds already", "ns", "cpu_time", "BM_FulfilledWait<{}>"),
                ("a turn handed to another thread and back", "us", "real_time", "BM_HandOver<{}>/real_time"),
            )
        ],
    ),
    Section(
        "reports",
        "Reports to the watcher",
        "threading/thread_watched_benchmark",
        [
            Row(
                "NotifyWork",
                "ns",
                "cpu_time",
                {OURS: "BM_NotifyWork", "clock and store": "BM_ClockAndStore"},
                against="clock and store",
            )
        ],
    ),
    Section(
        "watched",
        "Watched threads",
        "threading/threads_watcher_benchmark",
        [],
        [growth("threads put under watch and taken out", "us", "cpu_time", "WatchAndLeave/{}", (100, 1000, 10000))],
    ),
    Section(
        "pool",
        "Queueing and running jobs",
        "threading/thread_pool_benchmark",
        pool_rows(),
        [
            growth(
                "jobs that waited in the queue: processor time",
                "us",
                "cpu_time",
                "BM_LongQueue/{}/process_time/real_time",
                (1000, 10000, 100000),
            )
        ],
    ),
    Section(
        "queued-component",
        "Waking a queued component",
        "queued_processings/queued_component_benchmark",
        [
            Row(what, unit, metric, sides(pattern, of=of), "level", "condition variable loop", LEVEL)
            for of in ({OURS: "WithComponent", "condition variable loop": "WithStandardLibrary"},)
            for what, unit, metric, pattern in (
                (
                    "wake-up to execution: median",
                    "us",
                    "median_us",
                    "WakeUpToExecution<{}>/iterations:5000/manual_time",
                ),
                ("wake-up to execution: p99", "us", "p99_us", "WakeUpToExecution<{}>/iterations:5000/manual_time"),
                ("1000 wake-ups at once: time", "ms", "real_time", "BurstOfWakeUps<{}>/real_time"),
                ("1000 wake-ups at once: runs", "", "runs_per_burst", "BurstOfWakeUps<{}>/real_time"),
            )
        ],
        repetitions=1,
    ),
    Section(
        "observers",
        "Observers",
        "synchronizer/subject_benchmark",
        [],
        [
            growth("observers notified", "us", "cpu_time", "Notify/{}", (100, 1000, 10000)),
            growth(
                "observers attached and detached", "us", "cpu_time", "AttachAndDetach/{}", (100, 1000, 10000)
            ),
        ],
    ),
    Section(
        "messages",
        "Flattening messages",
        "dbus_message/values_list_benchmark",
        flattening_rows(),
        [
            growth(f"{form} entries", "us", "cpu_time", f"FlattenIntoValuesList/{form}/{{}}", (10, 100, 1000))
            for form in ("flat", "nested")
        ]
        + [growth("keys to look one up among", "ns", "cpu_time", "LookUpInValuesList/{}", (10, 100, 1000))],
        repetitions=2,
        min_time=0.05,
    ),
    Section(
        "pipe",
        "Messages through a pipe into the loop",
        "service/pipe_benchmark",
        [
            Row(what, "ns", "cpu_time", sides(pattern, of=PIPES), "at most 1.05 of the raw pipe", "raw pipe", 1.05)
            for what, pattern in (
                ("one thread writes and reads", "OneThread<{}>"),
                ("one writer: processor time", "Writers<{}>/1/process_time/real_time"),
                ("four writers: processor time", "Writers<{}>/4/process_time/real_time"),
            )
        ],
        rounds=7,
    ),
    Section(
        "recorder",
        "The flight recorder",
        "diagnostics/recorder_benchmark",
        [
            Row(
                f"an event, {writers} thread{'s' if writers > 1 else ''}: processor time",
                "ns",
                "event_ns",
                {OURS: f"Event/writers:{writers}"},
                "at most 25 ns",
                most=25,
            )
            for writers in (1, 4)
        ],
    ),
    Section("timers", "Periodic timers", "timer/timer_benchmark", timer_rows(), rounds=3, repetitions=1),
    Section(
        "commands",
        "Running programs",
        "process_execution/command_benchmark",
        command_rows(),
        repetitions=1,
    ),
    Section(
        "files",
        "Copying, deleting and measuring trees",
        "utilities/file_system_benchmark",
        file_rows(),
        [
            growth("entries of a folder listed", "us", "cpu_time", "Grow/ListEntries/{}", (100, 1000, 10000)),
            growth("entries of a folder measured", "us", "cpu_time", "Grow/DiskUsage/{}", (100, 1000, 10000)),
        ],
        repetitions=1,
        min_time=0.01,
        scale_note=True,
    ),
    Section(
        "archives",
        "Archives",
        "utilities/zipper_benchmark",
        zip_rows(),
        rounds=2,  # of several minutes, for 7z's sake
        repetitions=5,  # but for packing by 7z
        min_time=0.01,
        scale_note=True,
    ),
]
