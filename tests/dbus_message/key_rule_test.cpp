#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <tern/dbus_message/asv_signature_parser.h>
#include <tern/dbus_message/vasv_signature_parser.h>

#include <map>
#include <random>
#include <string>
#include <vector>

#include "foundation/unique_fd.h"
#include "support/log_capture.h"
#include "test_messages.h"

// Random messages against the rule that makes keys, told here a second time: from a model of the message, by
// joining names, without the parser's walk.

namespace mw::tern::DBusMessage {
namespace {

using ::tern::test::BusMessage;
using ::tern::test::LogCapture;
using ::tern::test::Require;
using ::tern::test::TestMessages;

constexpr unsigned SEEDS = 500;

/// What a list must hold: the type's letter and the value as text, by key.
using Expected = std::map<std::string, std::string>;

/// A node of the model: an entry's value.
struct Node {
    std::string type;                ///< "s", "(isi)", "as", "a{sv}", or one that no list keeps
    long long number = 0;            ///< value of the numeric types, first field of "(isi)"
    std::vector<std::string> texts;  ///< the text, the array's strings
    std::vector<std::string> names;  ///< of "a{sv}": each entry's name
    std::vector<Node> values;        ///< of "a{sv}": each entry's value
};

const std::vector<std::string> NUMERIC = {"b", "n", "q", "i", "u", "x", "t", "d", "y"};
const std::vector<std::string> UNSUPPORTED = {"ai", "a{ss}", "(ii)", "o", "g", "v", "ay", "(isis)"};

class Generator {
public:
    explicit Generator(unsigned seed) : mRandom(seed) {}

    Node Dictionary(int depth) {
        Node node;
        node.type = "a{sv}";
        for (std::size_t left = Below(depth == 0 ? 12 : 6); left > 0; --left) {
            node.names.push_back(Name());
            node.values.push_back(Value(depth + 1));
        }
        return node;
    }

private:
    Node Value(int depth) {
        const std::size_t kind = Below(depth < 8 ? 20 : 16);
        if (kind >= 16) {
            return Dictionary(depth);
        }
        Node node;
        if (kind < 8) {
            node.type = NUMERIC[Below(NUMERIC.size())];
            node.number = Number(node.type);
        } else if (kind < 11) {
            node.type = "s";
            node.texts.push_back(Text());
        } else if (kind == 11) {
            node.type = "h";
        } else if (kind == 12) {
            node.type = "(isi)";
            node.number = Number("i");
            node.texts.push_back(Text());
        } else if (kind == 13) {
            node.type = "as";
            for (std::size_t left = Below(13); left > 0; --left) {
                node.texts.push_back(Text());
            }
        } else {
            node.type = UNSUPPORTED[Below(UNSUPPORTED.size())];
        }
        return node;
    }

    /// From few names, so that names repeat and keys collide: empty, with separators, with digits.
    std::string Name() {
        static const std::vector<std::string> NAMES = {"", "_", "A", "B", "A_B", "_A", "A0", "L", "L1", "0"};
        return Below(12) == 0 ? std::string(Below(300), 'n') : NAMES[Below(NAMES.size())];
    }

    std::string Text() {
        return Below(8) == 0 ? std::string(Below(5000), 't') : "text" + std::to_string(Below(100));
    }

    long long Number(const std::string& type) {
        const auto between = [this](long long low, long long high) {
            return std::uniform_int_distribution<long long>(low, high)(mRandom);
        };
        switch (type.front()) {
            case 'b':
                return between(0, 1);
            case 'y':
                return between(0, 255);
            case 'n':
                return between(-32768, 32767);
            case 'q':
                return between(0, 65535);
            case 'i':
                return between(-2147483648LL, 2147483647);
            case 'u':
                return between(0, 4294967295LL);
            case 't':
                return between(0, 9223372036854775807LL);
            case 'd':
                return between(-1000000, 1000000);
            default:
                return between(-9223372036854775807LL, 9223372036854775807LL);
        }
    }

    std::size_t Below(std::size_t limit) {
        return std::uniform_int_distribution<std::size_t>(0, limit - 1)(mRandom);
    }

    std::mt19937 mRandom;
};

// ---- model to message

void AppendDictionary(sd_bus_message* message, const Node& node, int fd);

void AppendUnsupported(sd_bus_message* message, const std::string& type) {
    const char* const t = type.c_str();
    if (type == "ai" || type == "ay") {
        Require(sd_bus_message_append(message, t, 2, 1, 2), t);
    } else if (type == "a{ss}") {
        Require(sd_bus_message_append(message, t, 1, "A", "B"), t);
    } else if (type == "(ii)") {
        Require(sd_bus_message_append(message, t, 1, 2), t);
    } else if (type == "(isis)") {
        Require(sd_bus_message_append(message, t, 1, "x", 2, "y"), t);
    } else if (type == "o") {
        Require(sd_bus_message_append(message, t, "/A"), t);
    } else if (type == "g") {
        Require(sd_bus_message_append(message, t, "a{sv}"), t);
    } else {
        Require(sd_bus_message_append(message, t, "a{sv}", 1, "A", "i", 1), t);
    }
}

void AppendContent(sd_bus_message* message, const Node& node, int fd) {
    const char* const type = node.type.c_str();
    if (node.type == "a{sv}") {
        AppendDictionary(message, node, fd);
    } else if (node.type == "as") {
        Require(sd_bus_message_open_container(message, 'a', "s"), "open");
        for (const std::string& text : node.texts) {
            Require(sd_bus_message_append(message, "s", text.c_str()), "append");
        }
        Require(sd_bus_message_close_container(message), "close");
    } else if (node.type == "(isi)") {
        Require(sd_bus_message_append(message, type, static_cast<int>(node.number), node.texts[0].c_str(), 7),
                type);
    } else if (node.type == "s") {
        Require(sd_bus_message_append(message, type, node.texts[0].c_str()), type);
    } else if (node.type == "h") {
        Require(sd_bus_message_append(message, type, fd), type);
    } else if (node.type == "d") {
        Require(sd_bus_message_append(message, type, static_cast<double>(node.number) / 8), type);
    } else if (node.type == "x" || node.type == "t") {
        Require(sd_bus_message_append(message, type, node.number), type);
    } else if (node.type.size() == 1 && std::string("bnqiuy").find(node.type) != std::string::npos) {
        Require(sd_bus_message_append(message, type, static_cast<int>(node.number)), type);
    } else {
        AppendUnsupported(message, node.type);
    }
}

void AppendDictionary(sd_bus_message* message, const Node& node, int fd) {
    Require(sd_bus_message_open_container(message, 'a', "{sv}"), "open");
    for (std::size_t i = 0; i < node.values.size(); ++i) {
        const Node& value = node.values[i];
        Require(sd_bus_message_open_container(message, 'e', "sv"), "open");
        Require(sd_bus_message_append(message, "s", node.names[i].c_str()), "append");
        Require(sd_bus_message_open_container(message, 'v', value.type.c_str()), "open");
        AppendContent(message, value, fd);
        Require(sd_bus_message_close_container(message), "close");
        Require(sd_bus_message_close_container(message), "close");
    }
    Require(sd_bus_message_close_container(message), "close");
}

// ---- model to what is expected

std::string Join(const std::vector<std::string>& names) {
    std::string key;
    for (const std::string& name : names) {
        key += "_" + name;
    }
    return key;
}

void Expect(const Node& node, std::vector<std::string>& names, Expected& expected) {
    if (node.type == "a{sv}") {
        for (std::size_t i = 0; i < node.values.size(); ++i) {
            names.push_back(node.names[i]);
            Expect(node.values[i], names, expected);
            names.pop_back();
        }
    } else if (node.type == "as") {
        for (std::size_t i = 0; i < node.texts.size(); ++i) {
            expected.emplace(Join(names) + std::to_string(i), "s:" + node.texts[i]);
        }
    } else if (node.type == "(isi)") {
        expected.emplace(Join(names), "(isi):" + std::to_string(node.number) + "," + node.texts[0] + ",7");
    } else if (node.type == "s") {
        expected.emplace(Join(names), "s:" + node.texts[0]);
    } else if (node.type == "h") {
        expected.emplace(Join(names), "h:the file");
    } else if (node.type.size() == 1 && std::string("bnqiuxtdy").find(node.type) != std::string::npos) {
        expected.emplace(Join(names), node.type + ":" + std::to_string(node.number));
    }
}

// ---- list to the same form

template <typename Out, typename Format>
bool Show(const ValuesList& list, StatusCode (ValuesList::*get)(const std::string&, Out&) const,
          const std::string& key, std::string& shown, const Format& format) {
    Out out{};
    if ((list.*get)(key, out) != StatusCode::Ok) {
        return false;
    }
    EXPECT_EQ(shown, "") << key << " has two types";
    shown = format(out);
    return true;
}

bool IsSameFile(unsigned int a, int b) {
    struct stat first {};
    struct stat second {};
    return fstat(static_cast<int>(a), &first) == 0 && fstat(b, &second) == 0 &&
           first.st_ino == second.st_ino && first.st_dev == second.st_dev;
}

std::string ShowValue(const ValuesList& list, const std::string& key, int fd) {
    std::string shown;
    const auto number = [](const char* type) {
        return [type](auto value) { return std::string(type) + ":" + std::to_string(value); };
    };
    Show(list, &ValuesList::GetUint8, key, shown, number("y"));
    Show(list, &ValuesList::GetBool, key, shown, number("b"));
    Show(list, &ValuesList::GetInt16, key, shown, number("n"));
    Show(list, &ValuesList::GetUint16, key, shown, number("q"));
    Show(list, &ValuesList::GetInt32, key, shown, number("i"));
    Show(list, &ValuesList::GetUint32, key, shown, number("u"));
    Show(list, &ValuesList::GetInt64, key, shown, number("x"));
    Show(list, &ValuesList::GetUint64, key, shown, number("t"));
    Show(list, &ValuesList::GetDouble, key, shown,
         [](double value) { return "d:" + std::to_string(static_cast<long long>(value * 8)); });
    Show(list, &ValuesList::GetString, key, shown, [](const std::string& value) { return "s:" + value; });
    Show(list, &ValuesList::GetFD, key, shown,
         [fd](unsigned int value) { return IsSameFile(value, fd) ? "h:the file" : "h:another file"; });
    Show(list, &ValuesList::GetISI, key, shown, [](const ValueISI& value) {
        return "(isi):" + std::to_string(value.first) + "," + value.text + "," + std::to_string(value.second);
    });
    return shown;
}

Expected ShowAll(const ValuesList& list, int fd) {
    Expected all;
    for (const std::string& key : list.Keys()) {
        all.emplace(key, ShowValue(list, key, fd));
    }
    return all;
}

TEST(KeyRule, RandomMessagesAreFlattenedByTheRule) {
    const LogCapture log(5);
    const mwl::UniqueFd file(open("/dev/null", O_RDONLY | O_CLOEXEC));
    TestMessages messages;
    std::size_t keys = 0;
    for (unsigned seed = 1; seed <= SEEDS; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        const Node body = Generator(seed).Dictionary(0);

        const BusMessage plain = messages.New();
        AppendDictionary(plain.get(), body, file.Get());
        TestMessages::Seal(plain);
        ASVsignatureParser parser(plain.get());
        EXPECT_EQ(parser.ParseMessage(), 0);
        Expected expected;
        std::vector<std::string> names;
        Expect(body, names, expected);
        ASSERT_EQ(ShowAll(parser.GetValuesList(), file.Get()), expected);
        keys += expected.size();

        const BusMessage variant = messages.New();
        Require(sd_bus_message_open_container(variant.get(), 'v', "a{sv}"), "open");
        AppendDictionary(variant.get(), body, file.Get());
        Require(sd_bus_message_close_container(variant.get()), "close");
        TestMessages::Seal(variant);
        VASVsignatureParser variantParser(variant.get());
        EXPECT_EQ(variantParser.ParseMessage(), 0);
        Expected behindTwo;
        names = {""};
        Expect(body, names, behindTwo);
        ASSERT_EQ(ShowAll(variantParser.GetValuesList(), file.Get()), behindTwo);
    }
    EXPECT_GT(keys, SEEDS);  // the generator makes something
    EXPECT_TRUE(log.Entries().empty());
}

}  // namespace
}  // namespace mw::tern::DBusMessage
