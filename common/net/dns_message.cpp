#include "net/dns_message.h"

#include <string.h>

#include "core/cmstring.h"

namespace cm::dns {
namespace {

constexpr uint8_t kPointer = 0xC0;  // the two high bits of a length byte
constexpr size_t kLongestLabel = 63, kLongestWireName = 255, kLongestText = kNameSize - 1;
constexpr size_t kAlwaysShort = kLongestText / 2;  // a byte gives two characters at most, so this need not be counted
constexpr int kMostJumps = 127;
constexpr size_t kPointerReach = 0x4000;  // offsets are 14 bits
constexpr size_t kQuestionRest = 4;       // type and class
constexpr size_t kRecordRest = 10;        // type, class, time to live, length of data

// Writes the labels of a text, the root's included, as they stand on the wire; kLongestWireName bytes at most, of which
// those behind the result are scratch.  Gives their length, 0 when the text is no name.
size_t encode_name(std::string_view text, uint8_t *out) {
    size_t start = 0, length = 1;  // of the label under way: where its length byte is; behind its last byte
    const auto close_label = [&] {
        const size_t label = length - start - 1;
        out[start] = static_cast<uint8_t>(label);
        return label > 0 && label <= kLongestLabel;
    };
    for (size_t i = 0; i < text.size(); i++) {
        if (length >= kLongestWireName) return 0;
        if (text[i] == '.') {
            if (!close_label()) return 0;
            start = length++;
            continue;
        }
        if (text[i] == '\\' && ++i == text.size()) return 0;
        out[length++] = static_cast<uint8_t>(text[i]);
    }
    if (length - start == 1 && start > 0) {  // a full stop at the end
        out[start] = 0;
        return length;
    }
    if (length >= kLongestWireName || !close_label()) return 0;
    out[length] = 0;
    return length + 1;
}

// The text of a name under way.
class NameText {
public:
    explicit NameText(char *out) : out_(out) {}

    bool label(const uint8_t *bytes, size_t count) {
        if (length_ > 0 && !put('.')) return false;
        for (size_t i = 0; i < count; i++) {
            const char c = static_cast<char>(bytes[i]);
            if ((c == '.' || c == '\\') && !put('\\')) return false;
            if (!put(c)) return false;
        }
        return true;
    }
    size_t finish() {
        if (out_ != nullptr) out_[length_] = 0;
        return length_;
    }

private:
    bool put(char c) {
        if (length_ == kLongestText) return false;
        out_[length_++] = c;
        return true;
    }

    char *const out_;
    size_t length_ = 0;
};

size_t skip_questions(const Message &message) {
    size_t offset = kHeaderSize;
    for (uint32_t left = message.questions(); left > 0; left--) {
        offset = expand_name(message, offset, nullptr, nullptr);
        if (offset == 0 || message.length - offset < kQuestionRest) return 0;
        offset += kQuestionRest;
    }
    return offset;
}

struct Record {
    uint16_t type, class_;
    size_t data, data_length;
};

// Gives the offset behind the record, 0 when it is not whole.
size_t read_record(const Message &message, size_t offset, Record *out) {
    offset = expand_name(message, offset, nullptr, nullptr);
    if (offset == 0 || message.length - offset < kRecordRest) return 0;
    const uint8_t *fields = message.bytes + offset;
    *out = {number_at(fields), number_at(fields + 2), offset + kRecordRest, number_at(fields + 8)};
    if (message.length - out->data < out->data_length) return 0;
    return out->data + out->data_length;
}

// A name that fills the data from `offset` to their end.
bool read_host_name(const Message &message, const Record &record, size_t offset, char *out) {
    size_t length = 0;
    const size_t end = record.data + record.data_length;
    if (offset >= end || expand_name(message, offset, out, &length) != end) return false;
    return is_host_name({out, length});
}

void take_exchanger(const Message &message, const Record &record, Answer *out) {
    char name[kNameSize];
    if (record.data_length >= 3 && read_host_name(message, record, record.data + 2, name))
        add_exchanger(out, number_at(message.bytes + record.data), name);
}

}  // namespace

bool is_host_name(std::string_view name) {
    for (const char c : name)
        if (!is_letter(c) && !is_digit(c) && c != '-' && c != '_' && c != '.') return false;
    return !name.empty();
}

size_t expand_name(const Message &message, size_t offset, char *out, size_t *out_length) {
    NameText text(out);
    size_t end = 0;         // behind the name, known at the first pointer
    size_t start = offset;  // of the labels being read; a pointer leads to before them
    const size_t first = offset;
    size_t wire = 0;  // bytes of labels
    int jumps = 0;
    for (;;) {
        if (offset >= message.length) return 0;
        const uint8_t head = message.bytes[offset];
        if (head == 0) break;
        if (head <= kLongestLabel) {
            if (message.length - offset <= head) return 0;
            wire += 1u + head;
            if (out != nullptr) {
                if (!text.label(message.bytes + offset + 1, head)) return 0;
            } else if (wire > kAlwaysShort) {
                char scratch[kNameSize];
                return expand_name(message, first, scratch, nullptr);
            }
            offset += 1u + head;
            continue;
        }
        if ((head & kPointer) != kPointer || message.length - offset < 2) return 0;
        const size_t target = number_at(message.bytes + offset) & (kPointerReach - 1);
        if (target < kHeaderSize || target >= start || ++jumps > kMostJumps) return 0;
        if (end == 0) end = offset + 2;
        offset = start = target;
    }
    const size_t length = text.finish();
    if (out_length != nullptr) *out_length = length;
    return end != 0 ? end : offset + 1;
}

void add_exchanger(Answer *answer, uint16_t preference, std::string_view name) {
    size_t place = answer->count;
    while (place > 0 && preference < answer->preferences[place - 1]) place--;
    if (place == kMostResults) return;
    if (answer->count < kMostResults) answer->count++;
    for (size_t i = answer->count - 1; i > place; i--) {
        answer->preferences[i] = answer->preferences[i - 1];
        memcpy(answer->names[i], answer->names[i - 1], kNameSize);
    }
    answer->preferences[place] = preference;
    memcpy(answer->names[place], name.data(), name.size());
    answer->names[place][name.size()] = 0;
}

// ---- Writer ---------------------------------------------------------------------------------------------------------

bool Writer::bytes(const void *data, size_t count) {
    if (size_ - length_ < count) return false;
    memcpy(buffer_ + length_, data, count);
    length_ += count;
    return true;
}

bool Writer::zeros(size_t count) {
    if (size_ - length_ < count) return false;
    memset(buffer_ + length_, 0, count);
    length_ += count;
    return true;
}

bool Writer::number(uint16_t value) {
    uint8_t pair[2];
    put_number(pair, value);
    return bytes(pair, sizeof pair);
}

bool Writer::number32(uint32_t value) {
    uint8_t four[4];
    put_number(four, static_cast<uint16_t>(value >> 16));
    put_number(four + 2, static_cast<uint16_t>(value));
    return bytes(four, sizeof four);
}

void Writer::cut(size_t length) {
    length_ = length;
    while (suffix_count_ > 0 && suffixes_[suffix_count_ - 1] >= length) suffix_count_--;
}

// What stands there was written here, so its pointers are sound.
bool Writer::equals_at(size_t offset, const uint8_t *wire) const {
    for (;;) {
        const uint8_t head = buffer_[offset];
        if ((head & kPointer) == kPointer) {
            offset = number_at(buffer_ + offset) & (kPointerReach - 1);
            continue;
        }
        if (head != *wire) return false;
        if (head == 0) return true;
        for (size_t i = 1; i <= head; i++)
            if (fold(static_cast<char>(buffer_[offset + i])) != fold(static_cast<char>(wire[i]))) return false;
        offset += 1u + head;
        wire += 1u + head;
    }
}

bool Writer::find_suffix(const uint8_t *wire, uint16_t *out_offset) const {
    for (size_t i = 0; i < suffix_count_; i++) {
        if (!equals_at(suffixes_[i], wire)) continue;
        *out_offset = suffixes_[i];
        return true;
    }
    return false;
}

void Writer::remember(size_t offset) {
    if (suffix_count_ < kMostSuffixes && offset < kPointerReach)
        suffixes_[suffix_count_++] = static_cast<uint16_t>(offset);
}

bool Writer::name(std::string_view text) {
    const size_t room = size_ - length_;
    uint8_t apart[kLongestWireName];  // where it could not be encoded in its place
    uint8_t *const wire = room >= kLongestWireName ? buffer_ + length_ : apart;
    const size_t whole = encode_name(text, wire);
    if (whole == 0) return false;
    uint16_t known = 0;
    size_t own = 0;  // bytes of labels in front of a suffix that stands in the message already
    if (suffix_count_ > 0)
        while (wire[own] != 0 && !find_suffix(wire + own, &known)) own += 1u + wire[own];
    const bool point = known != 0;
    const size_t length = point ? own + 2 : whole;
    if (room < length) return false;
    for (size_t label = 0; wire[label] != 0 && (!point || label < own); label += 1u + wire[label])
        remember(length_ + label);
    if (wire == apart) memcpy(buffer_ + length_, wire, length);
    if (point) put_number(buffer_ + length_ + own, static_cast<uint16_t>(kPointer << 8 | known));
    length_ += length;
    return true;
}

// ---- queries and answers --------------------------------------------------------------------------------------------

size_t build_query(uint8_t *buffer, size_t size, uint16_t id, std::string_view name, uint16_t type) {
    constexpr uint8_t kRest[kHeaderSize - 2] = {kFlagRecursionDesired, 0, 0, 1};  // one question
    Writer out(buffer, size);
    const bool whole =
        out.number(id) && out.bytes(kRest, sizeof kRest) && out.name(name) && out.number(type) && out.number(kClassIn);
    return whole ? out.length() : 0;
}

bool read_question(const Message &message, Question *out) {
    if (message.is_response() || (message.bytes[2] & kOpcodeMask) != 0 || message.questions() != 1) return false;
    const size_t offset = expand_name(message, kHeaderSize, out->name, &out->name_length);
    if (offset == 0 || message.length - offset < kQuestionRest) return false;
    out->type = number_at(message.bytes + offset);
    out->class_ = number_at(message.bytes + offset + 2);
    out->end = offset + kQuestionRest;
    return true;
}

bool answers_query(const Message &message, const Message &query, size_t question_end) {
    if (message.id() != query.id()) return false;
    if (message.questions() == 0) return message.rcode() != 0;
    if (!message.is_response() || message.questions() != 1 || message.length < question_end) return false;
    // Bytes are enough: nothing precedes the question that it could point to, and a length byte is never a letter.
    const auto name_of = [=](const Message &from) {
        return std::string_view(reinterpret_cast<const char *>(from.bytes) + kHeaderSize,
                                question_end - kQuestionRest - kHeaderSize);
    };
    const size_t rest = question_end - kQuestionRest;
    return memcmp(message.bytes + rest, query.bytes + rest, kQuestionRest) == 0 &&
           equal_folded(name_of(message), name_of(query));
}

bool parse_answer(const Message &message, uint16_t type, Answer *out) {
    out->count = 0;
    size_t offset = skip_questions(message);
    if (offset == 0) return false;
    uint16_t last_type = 0, class_ = 0;
    for (uint32_t left = message.answers(); left > 0; left--) {
        Record record;
        offset = read_record(message, offset, &record);
        if (offset == 0) break;
        last_type = record.type;
        if (record.type != type) continue;
        if (type == kTypeA) {
            // The first one decides which class is meant; addresses are four bytes or the message is not to be used.
            if (out->count == 0) {
                if (record.data_length != sizeof out->addresses[0]) return false;
                class_ = record.class_;
            }
            if (record.class_ != class_ || record.data_length != sizeof out->addresses[0]) continue;
            if (out->count < kMostResults)
                memcpy(&out->addresses[out->count++], message.bytes + record.data, sizeof out->addresses[0]);
        } else if (type == kTypePtr) {
            if (out->count == 0 && read_host_name(message, record, record.data, out->names[0])) out->count = 1;
        } else {
            take_exchanger(message, record, out);
        }
    }
    // Kept: exchangers count only when nothing but an exchanger comes last.
    return out->count > 0 && (type != kTypeMx || last_type == kTypeMx);
}

}  // namespace cm::dns
