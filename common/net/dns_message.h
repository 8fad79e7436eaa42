// DNS messages (RFC 1035): writing queries and answers, reading answers.  Pure: bytes in, bytes out.
//
// A name as text has a full stop between labels; a full stop or a backslash inside a label has a backslash before it.
// On the way in nothing of a message is believed: every read is checked against its end, a compression pointer leads
// backwards only, so that no chain of them comes round again.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <string_view>

#include "tilvarcm.h"

namespace cm::dns {

constexpr uint16_t kTypeA = 1, kTypePtr = 12, kTypeMx = 15, kTypeAaaa = 28;
constexpr uint16_t kClassIn = 1, kClassAny = 255;
constexpr int32_t kRcodeServerFailure = 2, kRcodeNameError = 3;

constexpr size_t kHeaderSize = 12;
constexpr size_t kNameSize = CM_DNS_NAME;  // of a name as text, with its terminator
constexpr size_t kMostResults = 4;         // addresses, exchangers

// Bits of the two flag bytes of a header.
constexpr uint8_t kFlagResponse = 0x80, kOpcodeMask = 0x78, kFlagAuthoritative = 0x04, kFlagTruncated = 0x02,
                  kFlagRecursionDesired = 0x01;                                              // byte 2
constexpr uint8_t kFlagRecursionAvailable = 0x80, kFlagsChecking = 0x30, kRcodeMask = 0x0F;  // byte 3

inline uint16_t number_at(const uint8_t *bytes) {
    return static_cast<uint16_t>(bytes[0] << 8 | bytes[1]);
}
inline void put_number(uint8_t *bytes, uint16_t number) {
    bytes[0] = static_cast<uint8_t>(number >> 8);
    bytes[1] = static_cast<uint8_t>(number);
}

struct Message {
    const uint8_t *bytes;
    size_t length;  // kHeaderSize at least, wherever a Message is asked for

    uint16_t id() const { return number_at(bytes); }
    bool is_response() const { return (bytes[2] & kFlagResponse) != 0; }
    int32_t rcode() const { return bytes[3] & kRcodeMask; }
    uint16_t questions() const { return number_at(bytes + 4); }
    uint16_t answers() const { return number_at(bytes + 6); }
};

// Letters, digits, "-", "_" and ".", at least one of them: what may reach a log, a file or another server as a name.
bool is_host_name(std::string_view name);

// ---- names ----------------------------------------------------------------------------------------------------------

// Reads the name at `offset` as text into `out` (kNameSize bytes, or null to only pass over it).  Gives the offset
// behind it, 0 when it is malformed or longer than 255 characters.
size_t expand_name(const Message &message, size_t offset, char *out, size_t *out_length);

// Puts names behind one another into a message, each as short as the names before it allow.
class Writer {
public:
    Writer(uint8_t *buffer, size_t size) : buffer_(buffer), size_(size) {}

    size_t length() const { return length_; }
    // All fail, and then write nothing, when the rest of the buffer is too small.
    bool bytes(const void *data, size_t count);
    bool zeros(size_t count);
    bool number(uint16_t value);
    bool number32(uint32_t value);
    bool name(std::string_view text);  // fails also for empty labels, labels over 63 and names over 255 bytes
    void cut(size_t length);           // back to what was written before

private:
    static constexpr size_t kMostSuffixes = 64;

    bool find_suffix(const uint8_t *wire, uint16_t *out_offset) const;
    bool equals_at(size_t offset, const uint8_t *wire) const;
    void remember(size_t offset);

    uint8_t *const buffer_;
    const size_t size_;
    size_t length_ = 0;
    uint16_t suffixes_[kMostSuffixes];  // where a label starts that a later name may point to
    size_t suffix_count_ = 0;
};

// ---- queries and answers --------------------------------------------------------------------------------------------

// One question with recursion desired.  Gives its length, 0 when the name is none or the buffer too small.
size_t build_query(uint8_t *buffer, size_t size, uint16_t id, std::string_view name, uint16_t type);

// The one question of a request: standard query, not an answer, one question.
struct Question {
    char name[kNameSize];
    size_t name_length;
    uint16_t type;
    uint16_t class_;
    size_t end;  // offset behind it
};
bool read_question(const Message &message, Question *out);

// Whether a message from the right sender answers the query, whose question ends at `question_end`: it has its
// identifier, the response bit and the same question.  A failure without a question is taken without the response bit
// too, since this library's own servers answer so.
bool answers_query(const Message &message, const Message &query, size_t question_end);

struct Answer {
    size_t count;                      // addresses or names
    uint32_t addresses[kMostResults];  // A
    uint16_t preferences[kMostResults];
    char names[kMostResults][kNameSize];  // PTR: the first; MX: best first
};

// Keeps the best exchangers by ascending preference, those that came first before their equals.
void add_exchanger(Answer *answer, uint16_t preference, std::string_view name);

// Takes the records of that type (A, PTR, MX) out of the answer section.  False when there is none to hand out.
bool parse_answer(const Message &message, uint16_t type, Answer *out);

}  // namespace cm::dns
