// Explanations of decisions, as JSON.

#include <cerrno>
#include <vela/core/internal/record_json.h>
#include <vela/core/internal/text.h>
#include <vela/core/internal/verdicts.h>

namespace vela
{
namespace
{

constexpr const char *verdict_words[] = {"chosen", "passed", "refused", "skipped"};

json_ref value_of(const figure &f)
{
    switch (f.is) {
    case figure::kind::number: return json_ref{json_integer(f.number)};
    case figure::kind::truth: return json_ref{json_boolean(f.number != 0)};
    case figure::kind::text: return text_json(f.text);
    case figure::kind::mac: return json_ref{json_string(mac_text{f.mac}.c_str())};
    }
    return {};
}

} // namespace

verdicts::verdicts(const char *question)
{
    complete_ = put_json(document_.get(), "question", json_ref{json_string(question)});
}

void verdicts::note(std::string_view name, verdict v, const char *reason, std::initializer_list<figure> figures)
{
    if (v == verdict::refused && !first_refusal_) first_refusal_ = reason;
    json_ref step{json_object()};
    bool complete = put_json(step.get(), "name", text_json(name)) &&
                    put_json(step.get(), "verdict", json_ref{json_string(verdict_words[static_cast<size_t>(v)])}) &&
                    put_json(step.get(), "reason", json_ref{json_string(reason)});
    for (const figure &f : figures) complete = complete && put_json(step.get(), f.key, value_of(f));
    complete_ = complete && json_array_append_new(steps_.get(), step.release()) == 0 && complete_;
}

bool verdicts::has(std::string_view name) const
{
    for (size_t i = 0; i < json_array_size(steps_.get()); ++i) {
        const json_t *noted = json_object_get(json_array_get(steps_.get(), i), "name");
        if (view(json_string_value(noted)) == name) return true;
    }
    return false;
}

void verdicts::conclude(const char *reason, const char *answer)
{
    if (answer) complete_ = put_json(document_.get(), "answer", text_json(answer)) && complete_;
    complete_ = put_json(document_.get(), "reason", json_ref{json_string(reason)}) && complete_;
}

json_t *verdicts::release()
{
    if (put_json(document_.get(), "steps", std::move(steps_)) && complete_) return document_.release();
    errno = ENOMEM;
    return nullptr;
}

} // namespace vela
