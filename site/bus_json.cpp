#include "site/bus_json.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <jansson.h>
#include <memory>

namespace site
{
namespace
{

std::string members(json_t *object);

std::string element(const char *name, json_t *value)
{
    const json_int_t number = json_integer_value(value);
    switch (json_typeof(value)) {
    case JSON_OBJECT: return bus::value(bus::table, name, members(value));
    case JSON_STRING: return bus::value(bus::string, name, json_string_value(value) + std::string(1, '\0'));
    case JSON_TRUE: return bus::value(bus::int8, name, std::string(1, '\1'));
    case JSON_FALSE: return bus::value(bus::int8, name, std::string(1, '\0'));
    case JSON_INTEGER:
        return number == static_cast<int32_t>(number) ? bus::int32_value(name, static_cast<uint32_t>(number))
                                                      : bus::int64_value(name, static_cast<uint64_t>(number));
    case JSON_ARRAY: {
        std::string elements;
        for (size_t i = 0; i < json_array_size(value); ++i) elements += element("", json_array_get(value, i));
        return bus::value(bus::array, name, elements);
    }
    default: return bus::value(0, name, {});
    }
}

std::string members(json_t *object)
{
    std::string result;
    const char *name = nullptr;
    json_t *value = nullptr;
    json_object_foreach(object, name, value) result += element(name, value);
    return result;
}

} // namespace

std::string bus_values(const std::string &json)
{
    json_error_t error;
    json_t *object = json_loads(json.c_str(), 0, &error);
    if (!object) {
        fprintf(stderr, "no JSON: %s: %s\n", error.text, json.c_str());
        exit(1);
    }
    std::string values = members(object);
    json_decref(object);
    return values;
}

bus_method answers(const std::string &json)
{
    return [values = bus_values(json)](std::string_view) { return bus_reply{0, {values}}; };
}

} // namespace site
