// Token scanning over a text in memory.  Characters are sorted into classes by one table; positions are checked once
// per call, and nothing behind the text's length is ever read.
#include <string.h>

#include "core/cmstring.h"

namespace cm::token {

static_assert(sizeof(void *) != 4 || sizeof(cm_token) == 3 * 4);

enum Class : unsigned char { kSpace = 1, kComma = 2, kDelimiter = 4, kAlnum = 8 };

struct Classes {
    unsigned char of[256] = {};

    constexpr Classes() {
        for (int i = 0; i < 256; i++) {
            const auto c = static_cast<char>(i);
            if (is_space(c)) of[i] = kSpace;
            if (is_letter(c) || is_digit(c)) of[i] = kAlnum;
        }
        for (const char c : std::string_view("=!%><()")) of[static_cast<unsigned char>(c)] = kDelimiter;
        of[static_cast<unsigned char>(',')] = kComma;
    }
};

static constexpr Classes kClasses;

static unsigned char class_of(char c) {
    return kClasses.of[static_cast<unsigned char>(c)];
}

static bool is_quote(char c) {
    return c == '"' || c == '\'';
}

static bool is_usable(const cm_token *scanner) {
    return scanner != nullptr && scanner->text != nullptr && scanner->position >= 0 &&
           scanner->position <= scanner->length;
}

template <class T>
static void put(T *out, T value) {
    if (out != nullptr) *out = value;
}

static int32_t skip(const cm_token &scanner, int32_t position, unsigned classes) {
    while (position < scanner.length && (class_of(scanner.text[position]) & classes)) position++;
    return position;
}

static int32_t skip_to(const cm_token &scanner, int32_t position, unsigned classes) {
    while (position < scanner.length && !(class_of(scanner.text[position]) & classes)) position++;
    return position;
}

// The token between the quote at the position and the next one like it, which is consumed.
static bool take_quoted(cm_token &scanner, std::string_view *out_token) {
    const char quote = scanner.text[scanner.position];
    const int32_t start = scanner.position + 1;
    const auto left = static_cast<size_t>(scanner.length - start);
    const char *const text = scanner.text + start;
    const auto *const end = left > 0 ? static_cast<const char *>(memchr(text, quote, left)) : nullptr;
    scanner.position = scanner.length;
    if (end == nullptr) return false;
    *out_token = {text, static_cast<size_t>(end - text)};
    scanner.position = static_cast<int32_t>(end - scanner.text) + 1;
    return true;
}

// Up to white space, or the delimiter that stands at the position.
static std::string_view take_plain(cm_token &scanner, unsigned white) {
    const int32_t start = scanner.position;
    int32_t end = skip_to(scanner, start, white | kDelimiter);
    if (end == start && end < scanner.length) end++;
    scanner.position = end;
    return {scanner.text + start, static_cast<size_t>(end - start)};
}

static bool matches(std::string_view a, std::string_view b, bool case_sensitive) {
    return case_sensitive ? a == b : equal_folded(a, b);
}

}  // namespace cm::token

using namespace cm::token;

CM_API int16_t CM_CALL cm_token_get(cm_token *scanner, int16_t comma_mode, const char **out_text, int32_t max_length,
                                    int32_t *out_length) {
    put(out_length, 0);
    if (!is_usable(scanner) || scanner->position == scanner->length) return 0;
    const unsigned white = comma_mode ? kSpace | kComma : kSpace;
    scanner->position = skip(*scanner, scanner->position, white);
    const bool quoted = scanner->position < scanner->length && is_quote(scanner->text[scanner->position]);
    std::string_view token;
    if (!quoted)
        token = take_plain(*scanner, white);
    else if (!take_quoted(*scanner, &token))
        return 0;
    const auto length = static_cast<int32_t>(token.size());
    if (length > max_length) return 0;
    if (length == 0 && !quoted) return 1;
    put(out_text, token.data());
    put(out_length, length);
    return 1;
}

CM_API int16_t CM_CALL cm_token_find(cm_token *scanner, const char *word, int32_t length) {
    if (word == nullptr || (length < 0 && length != CM_LEN_TEXT)) return 0;
    const std::string_view wanted = cm::view(word, length);
    const char *token = "";
    int32_t token_length = 0;
    while (cm_token_get(scanner, 1, &token, 255, &token_length))
        if (std::string_view(token, static_cast<size_t>(token_length)) == wanted) return 1;
    return 0;
}

CM_API int16_t CM_CALL cm_token_strchr(cm_token *scanner, char ch, int32_t *out_index) {
    put(out_index, 0);
    if (!is_usable(scanner) || scanner->position == scanner->length) return 0;
    const auto left = static_cast<size_t>(scanner->length - scanner->position);
    const void *const found = memchr(scanner->text + scanner->position, ch, left);
    if (found == nullptr) return 0;
    put(out_index, static_cast<int32_t>(static_cast<const char *>(found) - scanner->text));
    return 1;
}

// Unlike cm_token_strchr, a character that does not occur is no failure: kept, callers take the rest of the text then.
CM_API int16_t CM_CALL cm_token_findchr(cm_token *scanner, char ch, char stop_ch, int32_t *out_index) {
    if (!is_usable(scanner)) return 0;
    int32_t index = scanner->position;
    for (; index < scanner->length; index++) {
        const char c = scanner->text[index];
        if (c == stop_ch) return 0;
        if (c == ch) break;
    }
    put(out_index, index);
    return 1;
}

// Steps behind the next occurrence of the name, or to the last place where it was looked for.  A name that ends with
// the text is not found: kept, there is no value behind it.
static bool pass_name(cm_token &scanner, std::string_view name) {
    const int64_t end = int64_t{scanner.length} - static_cast<int64_t>(name.size());
    for (int32_t index = scanner.position; index < end; index++) {
        if (!cm::equal_folded({scanner.text + index, name.size()}, name)) continue;
        scanner.position = index + static_cast<int32_t>(name.size());
        return true;
    }
    if (end > scanner.position) scanner.position = static_cast<int32_t>(end - 1);
    return false;
}

CM_API int16_t CM_CALL cm_token_findval(cm_token *scanner, const char *name, int32_t length, char *out_value,
                                        int32_t max_value, int32_t *out_length) {
    put(out_length, 0);
    if (out_value == nullptr || max_value < 1) return 0;
    out_value[0] = '\0';
    if (!is_usable(scanner) || name == nullptr || (length < 0 && length != CM_LEN_TEXT)) return 0;
    if (!pass_name(*scanner, cm::view(name, length))) return 0;
    char terminator = '\0';
    if (is_quote(scanner->text[scanner->position])) terminator = scanner->text[scanner->position++];
    int32_t copied = 0;
    for (; scanner->position < scanner->length; scanner->position++) {
        const char c = scanner->text[scanner->position];
        if (c == terminator || c == '\r' || c == '\n') break;
        if (copied == max_value - 1) {
            out_value[copied] = '\0';
            return 0;
        }
        out_value[copied++] = c;
    }
    out_value[copied] = '\0';
    put(out_length, copied);
    return 1;
}

CM_API int16_t CM_CALL cm_token_inlist(const char *list, int32_t list_length, const char *word, int32_t word_length,
                                       int16_t case_sensitive) {
    std::string_view rest = cm::view(list, list_length);
    const std::string_view wanted = cm::view(word, word_length);
    if (wanted.empty()) return 0;
    while (!rest.empty()) {
        size_t length = 0;
        while (length < rest.size() && rest[length] != ' ' && rest[length] != ',') length++;
        if (matches({rest.data(), length}, wanted, case_sensitive != 0)) return 1;
        rest.remove_prefix(length < rest.size() ? length + 1 : length);
    }
    return 0;
}

CM_API int16_t CM_CALL cm_alnum_get(cm_token *scanner, const char *extra_chars, const char **out_text,
                                    int32_t max_length, int32_t *out_length) {
    put(out_length, 0);
    if (!is_usable(scanner) || scanner->position == scanner->length) return 0;
    const std::string_view extra = cm::view(extra_chars, CM_LEN_TEXT);
    const int32_t start = skip(*scanner, scanner->position, kSpace);
    int32_t end = skip(*scanner, start, kAlnum);
    while (end < scanner->length && extra.find(scanner->text[end]) != std::string_view::npos)
        end = skip(*scanner, end + 1, kAlnum);
    scanner->position = end;
    if (end == start || end - start > max_length) return 0;
    put(out_text, scanner->text + start);
    put(out_length, end - start);
    return 1;
}
