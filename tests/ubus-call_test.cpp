#include "tests/support/bus.h"
#include "tests/support/table.h"

#include <csignal>
#include <random>

namespace bus = site::bus;
using site::bus_reply;

namespace
{

json parsed(const char *text) { return json{json_loads(text, JSON_DECODE_ANY, nullptr)}; }

/// An object of any values, down to the given level.
class random_json
{
public:
    explicit random_json(unsigned seed) : random_{seed} {}

    json object(int levels)
    {
        json result{json_object()};
        for (unsigned n = pick(6); n > 0; --n) json_object_set_new(result.get(), text(1).c_str(), value(levels));
        return result;
    }

private:
    unsigned pick(unsigned below) { return static_cast<unsigned>(random_()) % below; }
    std::string text(size_t least)
    {
        std::string result;
        while (result.size() < least || pick(4) != 0)
            result += pick(8) == 0 ? "\u00fc" : std::string(1, 'a' + pick(26));
        return result;
    }
    json_t *value(int levels)
    {
        constexpr json_int_t edges[] = {0,         -1,       INT32_MAX, INT32_MIN, 1LL + INT32_MAX, -1LL + INT32_MIN,
                                        INT64_MAX, INT64_MIN};
        switch (pick(levels > 1 ? 8 : 6)) {
        case 0: return json_string(text(0).c_str());
        case 1: return json_integer(edges[pick(std::size(edges))]);
        case 2: return json_integer(static_cast<json_int_t>(random_()));
        case 3: return json_real(static_cast<double>(random_()) / 7);
        case 4: return json_boolean(pick(2));
        case 5: return json_null();
        case 6: return object(levels - 1).release();
        default: break;
        }
        json_t *const array = json_array();
        for (unsigned n = pick(5); n > 0; --n) json_array_append_new(array, value(levels - 1));
        return array;
    }

    std::mt19937_64 random_;
};

/// An object with arrays inside one another.
std::string nested(size_t levels)
{
    return R"({"a":)" + std::string(levels - 1, '[') + std::string(levels - 1, ']') + "}";
}

class UbusCall : public bus_test
{
protected:
    iface_ptr iface = nullptr;

    void start(const std::map<std::string, site::bus_method> &methods)
    {
        daemon->offer("vt", methods);
        daemon->start();
        ASSERT_NE(nullptr, iface = open());
    }
    /// What a call gives, as JSON text.
    std::string call(const char *method, const char *args, int expected, int timeout_ms = 0) const
    {
        json_t *answer = nullptr;
        EXPECT_EQ(expected, vela_ubus_call(iface, method, parsed(args).get(), &answer, timeout_ms)) << method;
        return text_of(json{answer}.get());
    }
};

bus_reply echo(std::string_view values) { return {0, {std::string(values)}}; }

} // namespace

TEST_F(UbusCall, AnyJsonComesBackAsItWent)
{
    start({{"echo", echo}});
    for (unsigned seed = 0; seed < 500; ++seed) {
        const json sent = random_json(seed).object(8);
        json_t *answer = nullptr;
        ASSERT_EQ(0, vela_ubus_call_object(iface, "vt", "echo", sent.get(), &answer, 0)) << seed;
        const json got{answer};
        ASSERT_TRUE(json_equal(sent.get(), got.get())) << seed << ": " << json_dumps(sent.get(), 0);
    }
    EXPECT_EQ("{}", call("echo", "{}", 0));
    EXPECT_EQ(0, vela_ubus_call(iface, "echo", nullptr, nullptr, 0)) << "a reply that nobody wants";
}

TEST_F(UbusCall, ArgumentsAreWhatAMessageCanCarry)
{
    start({{"echo", echo}});
    EXPECT_EQ(nested(16), call("echo", nested(16).c_str(), 0));
    call("echo", nested(17).c_str(), -EINVAL);
    call("echo", R"([1])", -EINVAL);
    call("", "{}", -EINVAL);
    call("echo", "{}", -EINVAL, 60001);
    const json with_nul{json_pack("{s:s#}", "a", "b\0c", 3)};
    EXPECT_EQ(-EINVAL, vela_ubus_call(iface, "echo", with_nul.get(), nullptr, 0));
    EXPECT_EQ(-EINVAL, vela_ubus_call(iface, nullptr, nullptr, nullptr, 0));
    EXPECT_EQ(-EINVAL, vela_ubus_call(nullptr, "echo", nullptr, nullptr, 0));
    EXPECT_EQ(-EINVAL, vela_ubus_call_object(iface, "", "echo", nullptr, nullptr, 0));

    // A frame of 1 MiB: its header, the id, the name, and round them one text under the name "t".
    constexpr size_t around = 4 + 8 + 12 + 4 + 8;
    for (const size_t over : {0U, 1U}) {
        const std::string text((1 << 20) - around - 1 + over, 't');
        const json big{json_pack("{s:s#}", "t", text.data(), text.size())};
        json_t *answer = nullptr;
        EXPECT_EQ(over ? -EMSGSIZE : 0, vela_ubus_call(iface, "echo", big.get(), &answer, 0));
        EXPECT_EQ(over == 0, json_equal(big.get(), answer)) << "it comes back as large, without the name";
        json_decref(answer);
    }
}

TEST_F(UbusCall, AnswersAreWhatProvidersMakeOfThem)
{
    const auto parts = [](const std::vector<std::string> &given) {
        return [given](std::string_view) { return bus_reply{0, given}; };
    };
    const auto nested_tables = [](size_t levels) {
        std::string values;
        for (size_t i = 1; i < levels; ++i) values = bus::value(bus::table, "a", values);
        return values;
    };
    const std::string a1 = bus::int32_value("a", 1);
    const std::string megabyte = bus::value(bus::string, "t", std::string((1 << 20) - 100, 't') + '\0');
    std::map<std::string, site::bus_method> methods = {
        {"none", parts({})},
        {"merged", parts({a1 + bus::int32_value("b", 1), bus::int32_value("b", 2), bus::value(bus::int8, "c", "\2")})},
        {"int16", parts({bus::value(bus::int16, "n", "\xff\xfe")})},
        {"infinite", parts({bus::value(bus::float64, "i", {"\x7f\xf0\0\0\0\0\0\0", 8}) + a1})},
        {"latin1", parts({bus::value(bus::string, "caf\xe9", {"\xfc\0", 2})})},
        {"nameless", parts({bus::int32_value("", 3) + a1})},
        {"malformed", parts({a1, bus::value(bus::int32, "n", "123")})},
        {"cut", parts({a1 + bus::value(bus::array, "n", bus::bytes("85 00 00 10 00 00 00 00"))})},
        {"deep", parts({nested_tables(16)})},
        {"deeper", parts({nested_tables(17)})},
        {"megabyte", parts({megabyte})},
        {"silent", [](std::string_view) { return bus_reply{std::nullopt}; }},
        {"slow", [](std::string_view) { return usleep(120'000), bus_reply{}; }},
        {"dies", [](std::string_view) { return raise(SIGKILL), bus_reply{}; }},
    };
    const table<uint32_t, int> statuses = {{1, -ENOSYS},  {2, -EINVAL},    {3, -ENOSYS},      {4, -ENOENT},
                                           {5, -ENODATA}, {6, -EACCES},    {7, -ETIMEDOUT},   {8, -EOPNOTSUPP},
                                           {9, -EIO},     {10, -ENOTCONN}, {11, -ENOMEM},     {12, -EBADMSG},
                                           {13, -EIO},    {14, -EIO},      {UINT32_MAX, -EIO}};
    for (const auto &[status, error] : statuses) {
        methods[std::to_string(status)] = [status = status](std::string_view) {
            return bus_reply{status, {bus::int32_value("a", 1)}};
        };
    }
    start(methods);
    for (const auto &[status, error] : statuses) {
        EXPECT_EQ("-", call(std::to_string(status).c_str(), "{}", error));
        EXPECT_NE("success", std::string_view(vela_ubus_error_text(error)));
    }
    EXPECT_STREQ("no answer in time", vela_ubus_error_text(-ETIMEDOUT));
    EXPECT_STREQ("message too large", vela_ubus_error_text(-EMSGSIZE));
    EXPECT_STREQ("unknown error", vela_ubus_error_text(77));

    const table<const char *, int, std::string> cases = {
        {"none", 0, "{}"},
        {"merged", 0, R"({"a":1,"b":2,"c":true})"},
        {"int16", 0, R"({"n":-2})"},
        {"infinite", 0, R"({"a":1})"},
        {"latin1", 0, R"({"caf?":"?"})"},
        {"nameless", 0, R"({"a":1})"},
        {"malformed", -EBADMSG, "-"},
        {"cut", 0, R"({"a":1,"n":[]})"},
        {"deeper", -EBADMSG, "-"},
        {"nosuch", -ENOSYS, "-"},
        {"silent", -ETIMEDOUT, "-"},
        {"slow", -ETIMEDOUT, "-"},
        {"dies", -ENOTCONN, "-"}, // in time, once the slow one is through
        {"none", -ENOTCONN, "-"},
    };
    EXPECT_EQ(1U << 20, call("megabyte", "{}", 0).size() + 92);
    EXPECT_THAT(call("deep", "{}", 0), testing::StartsWith(R"({"a":{"a":{"a":)"));
    for (const auto &[method, error, answer] : cases) {
        EXPECT_LT(seconds([&] { EXPECT_EQ(answer, call(method, "{}", error, 100)); }), 1) << method;
    }
}

TEST_F(UbusCall, FindsItsObjectAgainWhereverItIs)
{
    daemon->offer("vu", {{"who", [](std::string_view) { return bus_reply{0, {bus::int32_value("vu", 1)}}; }}});
    start({{"who", [](std::string_view) { return bus_reply{0, {bus::int32_value("vt", 1)}}; }}});
    EXPECT_EQ(R"({"vt":1})", call("who", "{}", 0));
    ASSERT_EQ(0, vela_ubus_find_object(iface, "vu"));
    EXPECT_EQ(R"({"vu":1})", call("who", "{}", 0)) << "the object found last";
    const uint32_t before = iface->id;
    EXPECT_EQ(-ENOENT, vela_ubus_call_object(iface, "nosuch", "who", nullptr, nullptr, 0));
    EXPECT_EQ(before, iface->id);

    restart(iface);
    EXPECT_EQ(before, iface->id);
    EXPECT_EQ(R"({"vu":1})", call("who", "{}", 0)) << "with a new id";
    EXPECT_NE(before, iface->id);
    ASSERT_EQ(0, vela_ubus_find_service(iface));
    EXPECT_EQ(R"({"vt":1})", call("who", "{}", 0));
}

TEST_F(UbusCall, ADaemonThatStopsCostsTheTimeLimit)
{
    start({{"echo", echo}});
    daemon->pause();
    for (const char *object : {"vt", "vu"}) {
        const double took = seconds(
            [&] { EXPECT_EQ(-ETIMEDOUT, vela_ubus_call_object(iface, object, "echo", nullptr, nullptr, 200)); });
        EXPECT_THAT(took, testing::AllOf(testing::Ge(0.2), testing::Le(1)));
    }
    daemon->resume();
    EXPECT_EQ("{}", call("echo", "{}", 0)) << "late answers are passed over";
}

TEST_F(UbusCall, ListsWhatTheBusOffers)
{
    daemon->offer("network.lan", {{"up", echo}, {"down", echo}});
    daemon->offer("network.wan", {});
    daemon->offer("hidden", {}, true);
    start({{"echo", echo}});
    const table<const char *, const char *> cases = {
        {nullptr, R"({"network.lan":{"down":{},"up":{}},"network.wan":{},"vt":{"echo":{"n":"int32"}}})"},
        {"network.*", R"({"network.lan":{"down":{},"up":{}},"network.wan":{}})"},
        {"vt", R"({"vt":{"echo":{"n":"int32"}}})"},
        {"hidden", "-"},
        {"", "-"},
    };
    for (const auto &[wanted, expected] : cases) {
        const json objects{vela_ubus_objects_json(iface, wanted)};
        EXPECT_EQ(expected, text_of(objects.get()));
    }
    EXPECT_EQ(EINVAL, errno);
    EXPECT_EQ(nullptr, vela_ubus_objects_json(nullptr, nullptr));
}
