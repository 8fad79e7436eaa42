// Messages of any bytes: never a read behind their end, and the promises of names, answers and queries kept.
// Input: one byte that chooses the question's type, then a message; or a name, written and read back.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "net/dns_message.h"

using namespace cm::dns;

namespace {

void require(bool condition) {
    if (!condition) std::abort();
}

// A block of its very size, so that a read behind it is caught.
struct Bytes {
    Bytes(const uint8_t *data, size_t size) : block(new uint8_t[size]), length(size) {
        if (size > 0) std::memcpy(block.get(), data, size);
    }
    Message message() const { return {block.get(), length}; }
    std::unique_ptr<uint8_t[]> block;
    size_t length;
};

void check_expansion(const Message &message) {
    const std::unique_ptr<char[]> text(new char[kNameSize]);
    for (size_t offset = kHeaderSize; offset < message.length && offset < kHeaderSize + 64; offset++) {
        size_t length = 0;
        const size_t end = expand_name(message, offset, text.get(), &length);
        require(expand_name(message, offset, nullptr, nullptr) == end);
        if (end == 0) continue;
        require(end > offset && end <= message.length && length < kNameSize && text[length] == 0);
    }
}

void check_answer(const Message &message, uint16_t type) {
    Answer answer;
    if (!parse_answer(message, type, &answer)) return;
    require(answer.count >= 1 && answer.count <= kMostResults && message.answers() > 0);
    for (size_t i = 0; type != kTypeA && i < answer.count; i++) {
        require(is_host_name({answer.names[i], strnlen(answer.names[i], kNameSize)}));
        require(type != kTypeMx || i == 0 || answer.preferences[i - 1] <= answer.preferences[i]);
    }
}

// What is written can be read, and is then the same.
void check_query(std::string name, uint16_t type) {
    uint8_t query[CM_DNS_BUFFER];
    const size_t length = build_query(query, sizeof query, 0x1234, name, type);
    if (length == 0) return;
    require(length <= kHeaderSize + 255 + 4);
    const Bytes exact(query, length);
    Question question;
    if (!read_question(exact.message(), &question)) return;  // with its escapes it is longer than names may be
    require(question.end == length && question.type == type && question.class_ == kClassIn);
    uint8_t again[CM_DNS_BUFFER];
    require(build_query(again, sizeof again, 0x1234, {question.name, question.name_length}, type) == length);
    require(std::memcmp(query, again, length) == 0);
    query[2] |= kFlagResponse;
    require(answers_query({query, length}, exact.message(), length));
}

// Names behind one another, each as it would stand alone.
void check_compression(const uint8_t *data, size_t size) {
    uint8_t buffer[CM_DNS_BUFFER];
    Writer out(buffer, sizeof buffer);
    out.zeros(kHeaderSize);
    const std::string text(reinterpret_cast<const char *>(data), size);
    for (size_t begin = 0; begin < text.size();) {
        const size_t end = std::min(text.find('\n', begin), text.size());
        const std::string name = text.substr(begin, end - begin);
        const size_t before = out.length();
        uint8_t alone[CM_DNS_BUFFER];
        Writer single(alone, sizeof alone);
        single.zeros(kHeaderSize);
        if (out.name(name)) {
            require(single.name(name) && out.length() - before <= single.length() - kHeaderSize);
            char compressed[kNameSize], plain[kNameSize];
            size_t length = 0, plain_length = 0;
            const size_t known = expand_name({buffer, out.length()}, before, compressed, &length);
            const size_t known_plain = expand_name({alone, single.length()}, kHeaderSize, plain, &plain_length);
            require((known == 0) == (known_plain == 0));
            require(known == 0 || (known == out.length() && length == plain_length));
            for (size_t i = 0; known != 0 && i < length; i++) require((compressed[i] | 0x20) == (plain[i] | 0x20));
        } else {
            require(out.length() == before);
        }
        begin = end + 1;
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 1) return 0;
    constexpr uint16_t kTypes[] = {kTypeA, kTypePtr, kTypeMx};
    const uint16_t type = kTypes[data[0] % 3];
    const Bytes bytes(data + 1, size - 1);
    if (bytes.length >= kHeaderSize) {
        check_answer(bytes.message(), type);
        check_expansion(bytes.message());
        Question question;
        read_question(bytes.message(), &question);
        const Bytes query(data + 1, std::min<size_t>(size - 1, kHeaderSize + 20));
        if (query.length == kHeaderSize + 20) answers_query(bytes.message(), query.message(), query.length);
    }
    check_query({reinterpret_cast<const char *>(data) + 1, size - 1}, type);
    check_compression(data + 1, size - 1);
    return 0;
}
