// Token scanning: any text, any scanner state, every call; results stay inside the text and agree with a slow reading
// of the rules.
#include <cctype>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>

#include "input.h"
#include "tilvarcm.h"

namespace {

using cm::fuzz::check;
using cm::fuzz::Input;

bool space(char c) {
    return c != '\0' && std::strchr(" \t\r\n\v\f", c) != nullptr;
}
bool delimiter(char c) {
    return c != '\0' && std::strchr("=!%><()", c) != nullptr;
}

struct Outcome {
    bool found = false;
    size_t position = 0;
    std::string token;
};

// The rules of cm_token_get, one character at a time.
Outcome reference(const std::string &text, size_t at, bool comma_mode, int32_t max_length) {
    const auto white = [&](char c) { return space(c) || (comma_mode && c == ','); };
    Outcome outcome;
    outcome.position = at;
    if (at >= text.size()) return outcome;
    while (at < text.size() && white(text[at])) at++;
    if (at < text.size() && (text[at] == '"' || text[at] == '\'')) {
        const char quote = text[at++];
        const size_t end = text.find(quote, at);
        outcome.position = end == text.npos ? text.size() : end + 1;
        if (end == text.npos) return outcome;
        outcome.token = text.substr(at, end - at);
    } else {
        size_t end = at;
        while (end < text.size() && !white(text[end]) && !delimiter(text[end])) end++;
        if (end == at && end < text.size()) end++;
        outcome.position = end;
        outcome.token = text.substr(at, end - at);
    }
    outcome.found = static_cast<int64_t>(outcome.token.size()) <= max_length;
    return outcome;
}

void check_get(const cm_token &from, const std::string &text, bool comma_mode, int32_t max_length) {
    cm_token scanner = from;
    const char *token = nullptr;
    int32_t length = -1;
    const bool usable = from.position >= 0 && from.position < from.length;
    const bool found = cm_token_get(&scanner, comma_mode, &token, max_length, &length) != 0;
    if (!usable) return check(!found && length == 0 && scanner.position == from.position);
    const Outcome expected = reference(text, static_cast<size_t>(from.position), comma_mode, max_length);
    check(found == expected.found && scanner.position == static_cast<int32_t>(expected.position));
    if (found) check(std::string(token == nullptr ? "" : token, static_cast<size_t>(length)) == expected.token);
}

void check_values(const cm_token &from, const std::string &text, const std::string &name, int32_t room) {
    cm_token scanner = from;
    const std::unique_ptr<char[]> value(new char[room > 0 ? static_cast<size_t>(room) : 1]);
    int32_t length = -1;
    const auto name_length = static_cast<int32_t>(name.size());
    const bool found = cm_token_findval(&scanner, name.data(), name_length, value.get(), room, &length) != 0;
    check(length >= 0 && (room < 1 || length < room));
    if (!found) return;
    check(strlen(value.get()) <= static_cast<size_t>(length) && value[static_cast<size_t>(length)] == '\0');
    check(text.find(value.get(), static_cast<size_t>(from.position), strlen(value.get())) != text.npos);
}

void check_rest(const cm_token &from, const std::string &text, const std::string &word, char a, char b) {
    cm_token scanner = from;
    int32_t index = -1;
    const bool usable = from.position >= 0 && from.position <= from.length;
    const size_t at = usable ? text.find(a, static_cast<size_t>(from.position)) : text.npos;
    check(cm_token_strchr(&scanner, a, &index) == (at != text.npos));
    check(index == (at != text.npos ? static_cast<int32_t>(at) : 0));
    if (cm_token_findchr(&scanner, a, b, &index)) check(index == from.length || text[static_cast<size_t>(index)] == a);
    check(scanner.position == from.position);

    const auto word_length = static_cast<int32_t>(word.size());
    cm_token_find(&scanner, word.data(), word_length);
    check(!usable || (scanner.position >= from.position && scanner.position <= from.length));
    scanner = from;
    const char *run = nullptr;
    if (cm_alnum_get(&scanner, word.c_str(), &run, 20, &index)) {
        check(index > 0 && index <= 20 && run >= from.text && run + index == from.text + scanner.position);
        for (int32_t i = 0; i < index; i++)
            check(std::isalnum(static_cast<unsigned char>(run[i])) || std::strchr(word.c_str(), run[i]) != nullptr);
    }
    const auto length = static_cast<int32_t>(text.size());
    const bool sensitive = cm_token_inlist(text.data(), length, word.data(), word_length, 1) != 0;
    const bool folded = cm_token_inlist(text.data(), length, word.data(), word_length, 0) != 0;
    check(!sensitive || (folded && text.find(word) != text.npos));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    Input input(data, size);
    const auto position = static_cast<int32_t>(input.byte()) - 4;
    const auto max_length = static_cast<int32_t>(input.byte()) - 2;
    const bool comma_mode = input.byte() % 2 != 0;
    const char a = static_cast<char>(input.byte()), b = static_cast<char>(input.byte());
    const std::string word = input.text(input.byte() % 8);
    const std::string text = input.rest();
    const std::unique_ptr<char[]> exact(new char[text.size()]);  // a read beyond it is one beyond the allocation
    memcpy(exact.get(), text.data(), text.size());
    cm_token scanner = {0, static_cast<int32_t>(text.size()), exact.get()};
    for (int32_t at = 0; at <= scanner.length; at++) {
        scanner.position = at;
        check_get(scanner, text, comma_mode, max_length);
        if (at % 16 != 0) continue;
        check_values(scanner, text, word, max_length);
        check_rest(scanner, text, word, a, b);
    }
    scanner.position = position;
    check_get(scanner, text, comma_mode, 255);
    check_rest(scanner, text, word, a, b);
    return 0;
}
