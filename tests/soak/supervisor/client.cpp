#include "client.h"

#include <systemd/sd-bus.h>
#include <time.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "names.h"
#include "support/wait_until.h"

namespace soak {

namespace {

using std::chrono::steady_clock;

constexpr const char* PROPERTIES = "org.freedesktop.DBus.Properties";
constexpr std::size_t MOST_ENTRIES = 30;
constexpr std::size_t LONGEST_TEXT = 2000;
constexpr std::size_t VERY_LONG_TEXT = 100000;

void Pause(std::chrono::microseconds pause) {
    std::this_thread::sleep_for(pause);
}

std::string ErrorName(const BusError& error, int r) {
    return error.Name().empty() ? strerrordesc_np(-r) : error.Name();
}

/// sd-bus gives up by itself, or the bus does.
bool IsTimeout(int r, const BusError& error) {
    const std::string name = error.Name();
    return r == -ETIMEDOUT || name == SD_BUS_ERROR_TIMEOUT || name == SD_BUS_ERROR_NO_REPLY;
}

}  // namespace

Client::Client(unsigned int number, std::string address, Habits habits, const Epoch& epoch,
               Complaints& complaints)
    : mNumber(number),
      mAddress(std::move(address)),
      mPath(ClientPath(number)),
      mHabits(habits),
      mEpoch(epoch),
      mComplaints(complaints),
      mRandom(number) {}

Client::~Client() {
    Stop();
}

void Client::Start() {
    mThread = std::thread([this] { Run(); });
}

void Client::Stop() {
    mStopping = true;
    if (mThread.joinable()) {
        mThread.join();
    }
}

Tally Client::GetTally() const {
    const std::lock_guard lock(mMutex);
    return mTally;
}

Client::Promise Client::GetPromise() const {
    const std::lock_guard lock(mMutex);
    return mPromise;
}

Client::Spell Client::TakeSpell() {
    const std::lock_guard lock(mMutex);
    const auto now = steady_clock::now();
    Spell spell = std::exchange(mSpell, {});
    // What lasts is told of again, and whole.
    spell.longest =
        std::max(spell.longest, std::chrono::duration_cast<std::chrono::milliseconds>(now - mLastAnswer));
    return spell;
}

void Client::Run() {
    while (!mStopping) {
        mSessionEpoch = mEpoch.Now();
        if (Epoch::IsInterruption(mSessionEpoch)) {
            Pause(std::chrono::milliseconds(1));
            continue;
        }
        Session();
        mBus.reset();
    }
}

void Client::Session() {
    mBus = OpenBus(mAddress);
    mTick = 0;
    mChanges = 0;
    mWrites = 0;
    if (mBus == nullptr || !Listen()) {
        if (mHabits.isHarmed) {
            Pause(std::chrono::milliseconds(20));  // the bus may be down, or just going
        } else if (!IsInterrupted()) {
            Complain("no connection to the running bus");
            Pause(std::chrono::milliseconds(100));
        }
        return;
    }
    if (!WaitForExtension()) {
        return;
    }
    mOwner = GetOwner();
    if (mHabits.isHarmed && mOwner.empty()) {
        return;  // gone again
    }
    while (!mStopping && !IsInterrupted() && CallSomething()) {
        while (sd_bus_process(mBus.get(), nullptr) > 0) {
        }
        Pause(std::chrono::microseconds(mHabits.pause) * (1 + Random(100)) / 50);
    }
}

bool Client::Listen() {
    const std::string sender = "type='signal',sender='" + BUS_NAME + "',path='";
    return sd_bus_add_match(
               mBus.get(), nullptr,
               (sender + OBJECT_PATH + "',interface='" + PROGRESS_INTERFACE + "',member='Tick'").c_str(),
               OnTick, this) >= 0 &&
           sd_bus_add_match(
               mBus.get(), nullptr,
               (sender + mPath + "',interface='" + PROPERTIES + "',member='PropertiesChanged'").c_str(),
               OnChanged, this) >= 0;
}

bool Client::WaitForExtension() {
    bool isThere = false;
    const bool isOver = tern::test::WaitUntil([&] {
        isThere = IsExtensionThere(mBus.get());
        return isThere || mStopping || IsInterrupted() || sd_bus_is_ready(mBus.get()) <= 0;
    });
    if (!isOver) {
        Complain("the extension did not come back");
    }
    return isThere;
}

bool Client::CallSomething() {
    const std::size_t choice = Random(100);
    if (choice < 40) {
        return Echo();
    }
    if (choice < 60) {
        return Count();
    }
    if (choice < 67) {
        return Work();
    }
    if (choice < 70) {
        return Keep();
    }
    return choice < 95 ? WriteAndRead() : BeRefused();
}

bool Client::Echo() {
    const std::string text = RandomText();
    const Message call = NewCall(CLIENT_INTERFACE, "Echo");
    sd_bus_message_append(call.get(), "s", text.c_str());
    Message reply;
    const char* answer = "";
    return Call(call.get(), reply) &&
           Check(sd_bus_message_read(reply.get(), "s", &answer) > 0 && text == answer, "Echo");
}

bool Client::Count() {
    const auto entries = static_cast<unsigned int>(Random(MOST_ENTRIES));
    const Message call = NewCall(CLIENT_INTERFACE, "Count");
    sd_bus_message_open_container(call.get(), 'a', "{sv}");
    for (unsigned int i = 0; i < entries; ++i) {
        sd_bus_message_append(call.get(), "{sv}", ("key" + std::to_string(i)).c_str(), "s", "value");
    }
    sd_bus_message_close_container(call.get());
    Message reply;
    unsigned int answer = 0;
    return Call(call.get(), reply) &&
           Check(sd_bus_message_read(reply.get(), "u", &answer) > 0 && answer == entries, "Count");
}

bool Client::Work() {
    static constexpr const char* KINDS[] = {"command", "archive", "reload", "reload", "reload"};
    const Message call = NewCall(CLIENT_INTERFACE, "Work");
    sd_bus_message_append(call.get(), "s", KINDS[Random(std::size(KINDS))]);
    Message reply;
    if (!Call(call.get(), reply)) {
        return false;
    }
    static_cast<void>(IsDone(reply.get(), "Work"));
    return true;
}

bool Client::Keep() {
    std::uint64_t number = 0;
    {
        const std::lock_guard lock(mMutex);
        number = ++mPromise.asked;
    }
    const Message call = NewCall(CLIENT_INTERFACE, "Keep");
    sd_bus_message_append(call.get(), "t", number);
    Message reply;
    if (!Call(call.get(), reply)) {
        return false;
    }
    if (IsDone(reply.get(), "Keep")) {
        const std::lock_guard lock(mMutex);
        mPromise.answered = number;
    }
    return true;
}

bool Client::IsDone(sd_bus_message* reply, const std::string& what) {
    unsigned int status = 1;
    const bool isRead = sd_bus_message_read(reply, "u", &status) > 0;
    if (isRead && status != 0 && mHabits.isHarmed) {
        const std::lock_guard lock(mMutex);
        ++mTally.unable;
    } else {
        static_cast<void>(Check(isRead && status == 0, what));
    }
    return isRead && status == 0;
}

bool Client::WriteAndRead() {
    const std::string label = RandomText();
    const Message write = NewCall(PROPERTIES, "Set");
    sd_bus_message_append(write.get(), "ssv", CLIENT_INTERFACE.c_str(), "Label", "s", label.c_str());
    Message written;
    if (!Call(write.get(), written)) {
        return false;
    }
    ++mWrites;
    const Message read = NewCall(PROPERTIES, "Get");
    sd_bus_message_append(read.get(), "ss", CLIENT_INTERFACE.c_str(), "Label");
    Message reply;
    if (!Call(read.get(), reply)) {
        return false;
    }
    const char* answer = "";
    const bool isSame = sd_bus_message_read(reply.get(), "v", "s", &answer) > 0 && label == answer;
    // The announcement was sent before the second answer.
    while (sd_bus_process(mBus.get(), nullptr) > 0) {
    }
    return Check(isSame, "Label") && Check(mChanges == mWrites, "announcement of the changed Label");
}

bool Client::BeRefused() {
    const Message call = NewCall(PROPERTIES, "Set");
    sd_bus_message_append(call.get(), "ssv", CLIENT_INTERFACE.c_str(), "Label", "s", "");
    Message reply;
    return Call(call.get(), reply, REFUSAL);
}

Message Client::NewCall(const std::string& interface, const char* member) const {
    sd_bus_message* message = nullptr;
    sd_bus_message_new_method_call(mBus.get(), &message, BUS_NAME.c_str(), mPath.c_str(), interface.c_str(),
                                   member);
    return Message(message);
}

bool Client::Call(sd_bus_message* call, Message& reply, const std::string& refusal) {
    const auto limit = static_cast<std::uint64_t>(std::chrono::microseconds(mHabits.limit).count());
    BusError error;
    sd_bus_message* answer = nullptr;
    const auto begin = steady_clock::now();
    const int r = sd_bus_call(mBus.get(), call, limit, &error.error, &answer);
    const auto took = std::chrono::duration_cast<std::chrono::microseconds>(steady_clock::now() - begin);
    reply.reset(answer);

    const bool isRefused = !refusal.empty() && r < 0 && error.Name() == refusal;
    const bool isAnswered = r >= 0 || isRefused;
    const bool isInterrupted = !isAnswered && (mHabits.isHarmed ? WasCutOff() : IsInterrupted());
    const bool isLost = !isAnswered && !isInterrupted && IsTimeout(r, error);
    const bool isWrong = r >= 0 && !refusal.empty();
    {
        const std::lock_guard lock(mMutex);
        ++mTally.calls;
        mTally.replies += isAnswered ? 1 : 0;
        mTally.interrupted += isInterrupted ? 1 : 0;
        mTally.lost += isLost ? 1 : 0;
        mTally.errors += !isAnswered && !isInterrupted && !isLost ? 1 : 0;
        mTally.wrong += isWrong ? 1 : 0;
        if (isAnswered) {
            const auto now = steady_clock::now();
            mTally.latencies.Add(took);
            ++mSpell.answers;
            mSpell.longest = std::max(
                mSpell.longest, std::chrono::duration_cast<std::chrono::milliseconds>(now - mLastAnswer));
            mLastAnswer = now;
        }
    }
    if (!isAnswered && !isInterrupted) {
        Complain(std::string(isLost ? "lost reply" : "failed call") + ": " + sd_bus_message_get_member(call) +
                 ": " + ErrorName(error, r));
    }
    if (isWrong) {
        Complain("wrong answer: the call was not refused");
    }
    return isAnswered;
}

bool Client::WasCutOff() {
    return GetOwner() != mOwner;
}

std::string Client::GetOwner() {
    sd_bus_message* answer = nullptr;
    const char* owner = "";
    const int r =
        sd_bus_call_method(mBus.get(), "org.freedesktop.DBus", "/org/freedesktop/DBus",
                           "org.freedesktop.DBus", "GetNameOwner", nullptr, &answer, "s", BUS_NAME.c_str());
    const Message reply(answer);
    return r >= 0 && sd_bus_message_read(reply.get(), "s", &owner) > 0 ? owner : "";
}

bool Client::Check(bool isRight, const std::string& what) {
    if (!isRight) {
        {
            const std::lock_guard lock(mMutex);
            ++mTally.wrong;
        }
        Complain("wrong answer: " + what);
    }
    return true;
}

void Client::Complain(const std::string& complaint) {
    mComplaints.Add("client " + std::to_string(mNumber) + ": " + complaint);
}

std::string Client::RandomText() {
    const std::size_t length = Random(200) == 0 ? VERY_LONG_TEXT : 1 + Random(LONGEST_TEXT);
    return std::string(length, static_cast<char>('a' + Random(26)));
}

std::size_t Client::Random(std::size_t below) {
    return std::uniform_int_distribution<std::size_t>(0, below - 1)(mRandom);
}

int Client::OnTick(sd_bus_message* message, void* userdata, sd_bus_error*) {
    auto& self = *static_cast<Client*>(userdata);
    std::uint64_t number = 0;
    if (sd_bus_message_read(message, "t", &number) <= 0) {
        return 0;
    }
    const char* const sender = sd_bus_message_get_sender(message);
    if (self.mHabits.isHarmed && (sender == nullptr || sender != self.mOwner)) {
        return 0;  // of another life than this session's
    }
    const std::uint64_t expected = self.mTick == 0 ? number : self.mTick + 1;
    if (number != expected && self.IsInterrupted()) {
        return 0;  // of the next life, which began while this thread was held up
    }
    self.mTick = number;
    {
        const std::lock_guard lock(self.mMutex);
        ++self.mTally.signals;
        self.mTally.missed += number - expected;
    }
    if (number != expected) {
        self.Complain("missed signal: " + std::to_string(number) + " came where " + std::to_string(expected) +
                      " had to");
    }
    return 0;
}

int Client::OnChanged(sd_bus_message*, void* userdata, sd_bus_error*) {
    ++static_cast<Client*>(userdata)->mChanges;
    return 0;
}

}  // namespace soak
