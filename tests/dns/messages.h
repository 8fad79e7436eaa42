// Messages put together by hand, for the tests of this folder.
#pragma once

#include "net/dns_message.h"
#include "support/data.h"
#include "support/failures.h"
#include "support/replace.h"
#include "support/sockets.h"

namespace cm::test {

using platform::Error;
using platform::Table;
using std::string;

// ---- messages -------------------------------------------------------------------------------------------------------

inline string be16(uint32_t value) {
    return {static_cast<char>(value >> 8), static_cast<char>(value)};
}

// "www.host" as it stands on the wire; "" is the root.
inline string wire(std::string_view name) {
    string out;
    while (!name.empty()) {
        const std::string_view label = name.substr(0, name.find('.'));
        out += static_cast<char>(label.size());
        out += label;
        name.remove_prefix(std::min(name.size(), label.size() + 1));
    }
    return out + '\0';
}

inline string record(const string &owner, uint32_t type, const string &data, uint32_t class_ = 1) {
    return owner + be16(type) + be16(class_) + string("\0\0\0\x3C", 4) + be16(static_cast<uint32_t>(data.size())) +
           data;
}

inline string four(const char *dotted_text) {
    const uint32_t address = address_of(dotted_text);
    return string(reinterpret_cast<const char *>(&address), sizeof address);
}

const string kOwner = "\xC0\x0C";  // the name of the question

inline string a_record(const char *dotted_text) {
    return record(kOwner, 1, four(dotted_text));
}
inline string mx_record(uint32_t preference, const string &name) {
    return record(kOwner, 15, be16(preference) + wire(name));
}

// The answer to a query: its identifier and question, these flags and records.
inline string answer_to(const string &query, const Strings &records, uint32_t rcode = 0, uint32_t flags = 0x8180) {
    string out = query.substr(0, 2) + be16(flags | rcode) + query.substr(4, 2) +
                 be16(static_cast<uint32_t>(records.size())) + string(4, '\0') + query.substr(12);
    for (const string &one : records) out += one;
    return out;
}

}  // namespace cm::test
