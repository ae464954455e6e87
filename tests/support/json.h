// JSON in tests: documents from texts, and texts from documents.
//   parsed(R"({"a": 1})")  an owned document; a text that is none fails the test
//   dumped(value)          compact, keys sorted, bare values too; "null" for none. Looks, or takes what it owns
//   text_of(value, "key")  the text of a member; null where there is none
#pragma once

#include <gtest/gtest.h>
#include <string>
#include <vela/core/internal/json.h>
#include <vela/core/internal/memory.h>

inline vela::json_ref parsed(const std::string &text)
{
    json_error_t error;
    vela::json_ref value{json_loads(text.c_str(), JSON_DECODE_ANY, &error)};
    EXPECT_TRUE(value) << error.text << ": " << text;
    return value;
}

inline std::string dumped(const json_t *value)
{
    const vela::c_string text{value ? json_dumps(value, JSON_COMPACT | JSON_SORT_KEYS | JSON_ENCODE_ANY) : nullptr};
    return text ? text.get() : "null";
}
inline std::string dumped(const vela::json_ref &value) { return dumped(value.get()); }

inline const char *text_of(const vela::json_ref &object, const char *key)
{
    return json_string_value(json_object_get(object.get(), key));
}
