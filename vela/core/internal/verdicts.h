// Why a decision came out as it did. A decision takes a sink by pointer and tells it at the very points where it
// decides, so that an explanation is never a second implementation. The pointer is null in normal use.
//
//     note(why, "route", verdict::refused, "no_default_route");
//     note(why, port, verdict::passed, "no_link", {{"link", 0}});
//     why.conclude("no_link");  or  why.conclude("neighbour", port);
#pragma once

#include <concepts>
#include <initializer_list>
#include <string_view>
#include <vela/core/internal/json.h>

namespace vela
{

/// What became of one thing that a decision looked at.
enum class verdict : uint8_t {
    chosen,  // it is the answer
    passed,  // nothing against it
    refused, // it is out, or keeps the answer from being given
    skipped, // it did not matter
};

/// One more member of a step: a number, a truth, a text (made UTF-8) or a MAC address.
struct figure {
    template <std::integral Number>
    figure(const char *name, Number n)
        : key{name}, number{static_cast<json_int_t>(n)}, is{std::same_as<Number, bool> ? kind::truth : kind::number}
    {
    }
    figure(const char *name, std::string_view t) : key{name}, text{t}, is{kind::text} {}
    figure(const char *name, const char *t) : figure{name, std::string_view{t}} {}
    figure(const char *name, const uint8_t *six_bytes) : key{name}, mac{six_bytes}, is{kind::mac} {}

    enum class kind : uint8_t { number, truth, text, mac };
    const char *key;
    json_int_t number = 0;
    std::string_view text;
    const uint8_t *mac = nullptr;
    kind is;
};

/// The answer to one question: {question, answer, reason, steps: [{name, verdict, reason, ...}]}.
class verdicts
{
public:
    explicit verdicts(const char *question);

    /// One thing that was looked at. The reason is a fixed word of its family's.
    void note(std::string_view name, verdict v, const char *reason, std::initializer_list<figure> figures = {});
    /// Whether it was noted already.
    [[nodiscard]] bool has(std::string_view name) const;
    /// The first reason that refused something; null when nothing was refused.
    [[nodiscard]] const char *first_refusal() const { return first_refusal_; }

    /// The outcome. Without an answer there is none.
    void conclude(const char *reason, const char *answer = nullptr);
    /// The document, for who asked; null with errno when memory was short.
    json_t *release();

private:
    json_ref document_{json_object()};
    json_ref steps_{json_array()};
    const char *first_refusal_ = nullptr;
    bool complete_ = true;
};

/// Tells a sink that may be null.
inline void note(verdicts *why, std::string_view name, verdict v, const char *reason,
                 std::initializer_list<figure> figures = {})
{
    if (why) why->note(name, v, reason, figures);
}

} // namespace vela
