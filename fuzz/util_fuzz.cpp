// The helpers that take text from outside. jansson, which keeps valid UTF-8 only, says what a clean text is.
#include <cstdlib>
#include <cstring>
#include <jansson.h>
#include <memory>
#include <string>
#include <vela/core/util.h>

namespace
{

using text_ptr = std::unique_ptr<char[]>;

/// A block of exactly the text and its NUL.
text_ptr copy_of(const char *text, size_t length)
{
    text_ptr copy{new char[length + 1]};
    memcpy(copy.get(), text, length);
    copy[length] = '\0';
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

void sanitize(const char *text, size_t shift)
{
    const size_t length = strlen(text);
    const auto clean = copy_of(text, length);
    utf8_sanitize(clean.get());
    check(is_clean(clean.get()) && strlen(clean.get()) == length);
    if (is_clean(text)) check(strcmp(clean.get(), text) == 0);

    const auto shifted = copy_of(std::string(shift, 'a').append(text).c_str(), shift + length);
    utf8_sanitize(shifted.get());
    check(strcmp(shifted.get() + shift, clean.get()) == 0); // wherever it stands
}

void truncate(const char *text, size_t characters, size_t bytes)
{
    const size_t length = utf8_truncate_len(text, characters, bytes);
    check(length <= bytes && length <= strlen(text));
    if (is_clean(text)) check(is_clean(copy_of(text, length).get()));
}

void convert_and_cut(const char *text, size_t size)
{
    const std::unique_ptr<uint8_t[]> bytes{new uint8_t[size]};
    const text_ptr out{new char[2 * size + 1]};
    if (hex2uchar(text, bytes.get(), size) != 0) check(uchar2hex(bytes.get(), size, out.get(), 2 * size + 1) == size);
    uint8_t mac[6];
    (void)strtomac(text, mac);

    const text_ptr name{new char[size]};
    strncpy_trim(name.get(), size, text);
    check(size == 0 || strlen(name.get()) < size);
    strip_vlan_suffix(name.get(), text, size);
    check(size == 0 || (strlen(name.get()) < size && !strchr(name.get(), '.')));
    trim_trailing(copy_of(text, strlen(text)).get(), strlen(text));
}

/// A memory stream refuses to grow, so no line may move.
void comment_out(const char *bytes, size_t size, const char *patterns)
{
    if (size == 0) return;
    const auto copy = copy_of(bytes, size);
    FILE *stream = fmemopen(copy.get(), size, "r+");
    if (!stream) return;
    (void)comment_out_lines(stream, patterns);
    (void)fclose(stream);
    for (size_t i = 0; i < size; ++i) check(copy[i] == bytes[i] || copy[i] == '#');
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 2) return 0;
    const size_t a = data[0], b = data[1];
    const auto *bytes = reinterpret_cast<const char *>(data + 2);
    const auto text = copy_of(bytes, size - 2);
    sanitize(text.get(), a);
    truncate(text.get(), a, b);
    convert_and_cut(text.get(), b);
    comment_out(bytes, size - 2, text.get());
    return 0;
}
