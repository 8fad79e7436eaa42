// Messages put together of words:
//
//     [OWNER=]TYPE[/CLASS]:DATA   a record.  TYPE is a, mx, or a number; DATA an address, PREFERENCE,NAME, or bytes;
//                                 without OWNER it is that of the question
//     flags=N answers=N           these fields of the header
//     @OFFSET^N                   this byte changed; an OFFSET below 0 counts from the end
//     size=N cut=N                the whole made so long, or so much shorter
//
// In bytes, <www.host> is a name as it stands on the wire, <www@12> one that goes on at offset 12.
#pragma once

#include "net/dns_message.h"
#include "support/scenario.h"

namespace cm::test {

using std::string;

inline string be16(uint32_t value) {
    return {static_cast<char>(value >> 8), static_cast<char>(value)};
}

inline string wire(std::string_view name) {
    string out;
    while (!name.empty() && name[0] != '@') {
        const std::string_view label = name.substr(0, name.find_first_of(".@"));
        out += static_cast<char>(label.size());
        out += label;
        name.remove_prefix(label.size());
        if (name.starts_with('.')) name.remove_prefix(1);
    }
    return out + (name.empty() ? string(1, '\0') : be16(0xC000 | static_cast<uint32_t>(atoi(&name[1]))));
}

inline string bytes_of(const string &text) {
    string out;
    size_t from = 0;
    for (size_t open, end; (open = text.find('<', from)) != text.npos; from = end + 1) {
        end = text.find('>', open);
        out += text.substr(from, open - from) + wire(text.substr(open + 1, end - open - 1));
    }
    return out + text.substr(from);
}

inline string record_of(const string &word) {
    const size_t colon = word.find(':'), equals = std::min(word.find('='), colon);
    const string kind = word.substr(equals < colon ? equals + 1 : 0), data = word.substr(colon + 1);
    const size_t slash = kind.find('/');
    const bool a = kind[0] == 'a', mx = kind[0] == 'm';
    const uint32_t address = a ? address_of(data.c_str()) : 0;
    const string bytes = a    ? string(reinterpret_cast<const char *>(&address), sizeof address)
                         : mx ? be16(std::stoul(data)) + bytes_of(data.substr(data.find(',') + 1))
                              : bytes_of(data);
    return (equals < colon ? bytes_of(word.substr(0, equals)) : "\xC0\x0C") +
           be16(a    ? 1
                : mx ? 15
                     : std::stoul(kind)) +
           be16(slash < kind.find(':') ? std::stoul(kind.substr(slash + 1)) : 1) + string("\0\0\0\x3C", 4) +
           be16(static_cast<uint32_t>(bytes.size())) + bytes;
}

// A message of a header and a question, with what the words say from the first on.
inline string composed(string message, const Words &words, size_t first = 0) {
    for (uint32_t records = 0; first < words.count(); first++) {
        const string &word = words[first];
        if (word.find(':') != word.npos) {
            message += record_of(word);
            message.replace(6, 2, be16(++records));
            continue;
        }
        const auto number = static_cast<uint32_t>(strtoul(&word[word.find_first_of("=^") + 1], nullptr, 0));
        const long at = strtol(&word[1], nullptr, 10);
        if (word[0] == '@')
            message[at < 0 ? message.size() + at : at] ^= static_cast<char>(number);
        else if (word[0] == 'f')
            message.replace(2, 2, be16(number));
        else if (word[0] == 'a')
            message.replace(6, 2, be16(number));
        else
            message.resize(word[0] == 's' ? number : message.size() - number);
    }
    return message;
}

inline string query_of(const string &name, uint32_t type) {
    return "\x12\x34" + be16(0x0100) + be16(1) + string(6, '\0') + wire(name) + be16(type) + be16(1);
}

// The identifier and the question of a query.
inline string answer_to(const string &query) {
    return query.substr(0, 2) + be16(0x8180) + query.substr(4, 2) + string(6, '\0') + query.substr(12);
}

}  // namespace cm::test
