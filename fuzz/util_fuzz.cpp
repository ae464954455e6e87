// The helpers that take text from outside. jansson, which keeps valid UTF-8 only, says what a clean text is.
#include <cstdlib>
#include <cstring>
#include <jansson.h>
#include <memory>
#include <string>
#include <vela/core/util.h>

namespace
{

/// A block of exactly the text and its NUL.
std::unique_ptr<char[]> copy_of(const std::string &text)
{
    std::unique_ptr<char[]> copy{new char[text.size() + 1]};
    memcpy(copy.get(), text.c_str(), text.size() + 1);
    return copy;
}

bool is_clean(const char *text)
{
    json_t *value = json_string(text);
    json_decref(value);
    return value != nullptr;
}

void check(bool holds)
{
    if (!holds) abort();
}

void sanitize(const std::string &text, const std::string &before)
{
    const auto clean = copy_of(text);
    utf8_sanitize(clean.get());
    check(is_clean(clean.get()) && strlen(clean.get()) == text.size());
    if (is_clean(text.c_str())) check(text == clean.get());

    const auto shifted = copy_of(before + text);
    utf8_sanitize(shifted.get());
    check(before + clean.get() == shifted.get()); // wherever it stands
}

void truncate(const std::string &text, size_t characters, size_t bytes)
{
    const size_t length = utf8_truncate_len(copy_of(text).get(), characters, bytes);
    check(length <= bytes && length <= text.size());
    if (is_clean(text.c_str())) check(is_clean(text.substr(0, length).c_str()));
}

void convert_and_cut(const char *text, size_t size)
{
    const std::unique_ptr<char[]> out{new char[size]};
    (void)hex2uchar(text, reinterpret_cast<uint8_t *>(out.get()), size);
    uint8_t mac[6];
    (void)strtomac(text, mac);
    strncpy_trim(out.get(), size, text);
    check(size == 0 || strlen(out.get()) < size);
    strip_vlan_suffix(out.get(), text, size);
    check(size == 0 || (strlen(out.get()) < size && !strchr(out.get(), '.')));
    trim_trailing(copy_of(text).get(), strlen(text));
}

/// A memory stream refuses to grow, so no line may move.
void comment_out(const std::string &bytes, const char *patterns)
{
    std::string lines = bytes;
    FILE *stream = bytes.empty() ? nullptr : fmemopen(lines.data(), lines.size(), "r+");
    if (!stream) return;
    (void)comment_out_lines(stream, patterns);
    (void)fclose(stream);
    for (size_t i = 0; i < lines.size(); ++i) check(lines[i] == bytes[i] || lines[i] == '#');
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 2) return 0;
    const std::string bytes(data + 2, data + size), text = bytes.c_str();
    sanitize(text, std::string(data[0], 'a'));
    truncate(text, data[0], data[1]);
    convert_and_cut(copy_of(text).get(), data[1]);
    comment_out(bytes, text.c_str());
    return 0;
}
