// Tagged messages, by which the library's own processes talk to each other: one byte of tag, then what that tag holds,
// numbers in network byte order.  Items gather in the output buffer of a connection until an end marker sends them.
//
// The buffer may fill beyond CM_NET_OUT_SIZE: an item is put behind others while its bytes end within kFull, and its
// tag and length come on top of that.
#include <algorithm>
#include <array>
#include <cstring>

#include "core/cmstring.h"
#include "net/cmnetbody.h"
#include "net/cmnetinput.h"

namespace cm::net {
namespace {

using platform::os;

constexpr int32_t kNullLength = -1;  // of an item that is nothing, whatever its tag
constexpr int32_t kMostBytes = 15990, kFull = 16010;
constexpr size_t kNumber = 4, kNoticeHead = 4 * kNumber;
static_assert(kFull + 1 + kNumber <= CM_NET_STAGE_ALLOC && 1 + kNoticeHead + kMostBytes <= CM_NET_STAGE_ALLOC);

// What one item can have come with: what was buffered, and one receive.
constexpr size_t kMostAtOnce = 2 * CM_NET_IN_SIZE;

constexpr std::array<int32_t, 5> kTagOfType = {CM_TAG_BYTES, CM_TAG_INTEGER, CM_TAG_BOOL, CM_TAG_BYTES2, CM_TAG_RAW};

bool is_end(int32_t tag) {
    return tag == CM_TAG_END1 || tag == CM_TAG_END2 || tag == CM_TAG_END3;
}

void store_number(unsigned char *out, uint32_t value) {
    for (size_t i = 0; i < kNumber; i++) out[i] = static_cast<unsigned char>(value >> (24 - 8 * i));
}

uint32_t load_number(const unsigned char *in) {
    return uint32_t{in[0]} << 24 | uint32_t{in[1]} << 16 | uint32_t{in[2]} << 8 | in[3];
}

// ---- encoder --------------------------------------------------------------------------------------------------------

bool send_buffer(cm_net_state *state, cm_conn *conn) {
    Batch batch(state, conn);
    batch.buffered();
    return batch.send();
}

void append(cm_conn *conn, const void *bytes, size_t length) {
    if (length > 0) memcpy(conn->out_buf + conn->out_count, bytes, length);
    conn->out_count += static_cast<int32_t>(length);
}

// An item as it goes out: its tag and the numbers before its bytes, and those.
class Item {
public:
    Item() = default;
    Item(const Item &) = delete;
    Item &operator=(const Item &) = delete;

    // False: it cannot be sent.
    bool set(int32_t tag, const void *value, int32_t length);
    bool put(cm_net_state *state, cm_conn *conn) const;

private:
    bool set_value(const void *value, int32_t length);
    bool set_bytes(const void *bytes, int32_t length);
    bool set_notice(const cm_net_notice *notice);
    bool set_integer(const void *value);
    bool set_truth(const void *value);
    void add_number(uint32_t number) {
        store_number(head_ + head_length_, number);
        head_length_ += kNumber;
    }

    int32_t tag_ = 0;
    unsigned char head_[1 + kNoticeHead];
    size_t head_length_ = 1;
    unsigned char number_[kNumber];
    std::string_view bytes_;
};

bool Item::set_bytes(const void *bytes, int32_t length) {
    if (bytes == nullptr && (length > 0 || length == CM_LEN_TEXT)) return false;
    bytes_ = view(static_cast<const char *>(bytes), length);
    if (bytes_.size() > kMostBytes) return false;
    add_number(static_cast<uint32_t>(bytes_.size()));
    return true;
}

bool Item::set_notice(const cm_net_notice *notice) {
    if (notice == nullptr) return false;
    for (const int32_t number : notice->number) add_number(static_cast<uint32_t>(number));
    return set_bytes(notice->text, notice->length);
}

bool Item::set_integer(const void *value) {
    uint32_t number = 0;
    memcpy(&number, value, sizeof number);
    store_number(number_, number);
    bytes_ = {reinterpret_cast<const char *>(number_), kNumber};
    return true;
}

bool Item::set_truth(const void *value) {
    int16_t truth = 0;
    memcpy(&truth, value, sizeof truth);
    number_[0] = truth == 1;
    bytes_ = {reinterpret_cast<const char *>(number_), 1};
    return true;
}

bool Item::set_value(const void *value, int32_t length) {
    switch (tag_) {
        case CM_TAG_NOTICE:
            return set_notice(static_cast<const cm_net_notice *>(value));
        case CM_TAG_INTEGER:
            return value != nullptr && set_integer(value);
        case CM_TAG_BYTES:
        case CM_TAG_BYTES2:
            return set_bytes(value, length);
        case CM_TAG_BOOL:
            return value != nullptr && set_truth(value);
        case CM_TAG_RAW:  // in the machine's own order, as both sides have it
            bytes_ = {static_cast<const char *>(value), kNumber};
            return value != nullptr;
        default:
            return tag_ == CM_TAG_NULL || is_end(tag_);
    }
}

bool Item::set(int32_t tag, const void *value, int32_t length) {
    tag_ = length == kNullLength ? CM_TAG_NULL : tag;
    head_[0] = static_cast<unsigned char>(tag_);
    return length <= kMostBytes && set_value(value, length);
}

bool Item::put(cm_net_state *state, cm_conn *conn) const {
    const bool alone = tag_ == CM_TAG_NOTICE;
    const bool full = static_cast<int32_t>(bytes_.size()) > kFull - conn->out_count;
    if (conn->out_count > 0 && (alone || full) && !send_buffer(state, conn)) return false;
    append(conn, head_, head_length_);
    append(conn, bytes_.data(), bytes_.size());
    return (!alone && !is_end(tag_)) || send_buffer(state, conn);
}

// ---- decoder --------------------------------------------------------------------------------------------------------

enum class Got { kItem, kEndOfInput, kFailed };

// Reads items off a connection.
class Reader {
public:
    // Values of up to `room` bytes go to `value`; a null `value` drops them.
    Reader(cm_net_state *state, cm_conn *conn, void *value, uint32_t room)
        : state_(state), conn_(conn), value_(value), room_(room) {}

    // The next item that is no notice.  `look`: it stays where it is, but for an end marker, and only the tag is told.
    Got next(bool look);
    // The rest of the input buffer.
    Got drop();

    int32_t tag() const { return tag_; }
    int32_t length() const { return length_; }

private:
    Got read(void *out, size_t size);
    Got read_number(uint32_t *out);
    Got read_tag();
    Got read_value();
    Got read_integer();
    Got read_bytes();
    Got read_truth();
    Got read_raw();
    Got read_notice();
    Got store(const void *value, int32_t length);
    Got complain() const;
    void put_tag_back();

    cm_net_state *const state_;
    cm_conn *const conn_;
    void *const value_;
    const uint32_t room_;
    int32_t tag_ = 0, length_ = 0;
};

// Kept: one receive and no more, so that an item which arrives in more pieces fails.  A peer that closes in the middle
// of an item ends the input like one that closes before it.
Got Reader::read(void *out, size_t size) {
    const size_t there = take_unread(conn_, out, size);
    const size_t missing = size - there;
    if (missing == 0) return Got::kItem;
    int32_t got = 0;
    if (!refill(state_, conn_, &got)) return Got::kFailed;
    if (got == 0) return Got::kEndOfInput;
    if (static_cast<size_t>(got) < missing) return Got::kFailed;
    take_unread(conn_, out != nullptr ? static_cast<char *>(out) + there : nullptr, missing);
    return Got::kItem;
}

Got Reader::read_number(uint32_t *out) {
    unsigned char bytes[kNumber];
    const Got got = read(bytes, sizeof bytes);
    if (got == Got::kItem) *out = load_number(bytes);
    return got;
}

Got Reader::read_tag() {
    unsigned char tag = 0;
    const Got got = read(&tag, 1);
    tag_ = tag;
    length_ = 0;
    return got;
}

Got Reader::store(const void *value, int32_t length) {
    if (value_ != nullptr && static_cast<uint32_t>(length) > room_) return Got::kFailed;
    if (value_ != nullptr) memcpy(value_, value, static_cast<size_t>(length));
    length_ = length;
    return Got::kItem;
}

Got Reader::read_integer() {
    uint32_t number = 0;
    const Got got = read_number(&number);
    return got == Got::kItem ? store(&number, sizeof number) : got;
}

Got Reader::read_truth() {
    unsigned char byte = 0;
    const Got got = read(&byte, 1);
    const int16_t truth = byte == 1;
    return got == Got::kItem ? store(&truth, sizeof truth) : got;
}

Got Reader::read_raw() {
    unsigned char bytes[kNumber];
    const Got got = read(bytes, sizeof bytes);
    return got == Got::kItem ? store(bytes, sizeof bytes) : got;
}

// Kept: of the two kinds of bytes, too long a one of the first closes the connection, and of the second only fails.
Got Reader::read_bytes() {
    uint32_t length = 0;
    if (const Got got = read_number(&length); got != Got::kItem) return got;
    if (value_ != nullptr && length > room_) {
        if (tag_ == CM_TAG_BYTES) mark_closed(conn_);
        return Got::kFailed;
    }
    const Got got = read(value_, length);
    if (got == Got::kItem) length_ = static_cast<int32_t>(length);
    return got;
}

Got Reader::read_notice() {
    char text[kMostAtOnce + 1];
    cm_net_notice notice = {};
    uint32_t numbers[4];
    for (uint32_t &number : numbers)
        if (const Got got = read_number(&number); got != Got::kItem) return got;
    if (numbers[3] > kMostBytes) {
        mark_closed(conn_);
        return Got::kFailed;
    }
    if (const Got got = read(text, numbers[3]); got != Got::kItem) return got;
    text[numbers[3]] = '\0';
    for (size_t i = 0; i < std::size(notice.number); i++) notice.number[i] = static_cast<int32_t>(numbers[i]);
    notice.length = static_cast<int32_t>(numbers[3]);
    notice.text = text;
    const cm_notice_fn handler = load_relaxed(state_->notice);
    if (handler != nullptr) handler(state_, conn_, &notice);
    return has_flag(conn_, CM_CONN_CLOSED) ? Got::kFailed : Got::kItem;
}

Got Reader::complain() const {
    char text[48];
    const int32_t length = cm_snprintf(text, sizeof text, "Unknown network type %X\n", static_cast<unsigned>(tag_));
    os.write_standard_error(text, static_cast<size_t>(length));
    return Got::kFailed;
}

Got Reader::read_value() {
    switch (tag_) {
        case CM_TAG_NOTICE:
            return read_notice();
        case CM_TAG_INTEGER:
            return read_integer();
        case CM_TAG_BYTES:
        case CM_TAG_BYTES2:
            return read_bytes();
        case CM_TAG_BOOL:
            return read_truth();
        case CM_TAG_RAW:
            return read_raw();
        case CM_TAG_NULL:
            length_ = kNullLength;
            return Got::kItem;
        default:
            return is_end(tag_) ? Got::kItem : complain();
    }
}

// When the tag was the last byte of the buffer, the indices have gone back to 0.
void Reader::put_tag_back() {
    if (conn_->in_index > 0) {
        conn_->in_index--;
    } else {
        conn_->in_buf[0] = static_cast<unsigned char>(tag_);
        conn_->in_count = 1;
    }
}

Got Reader::next(bool look) {
    Got got = Got::kItem;
    do {
        got = read_tag();
        if (got == Got::kItem && look && tag_ != CM_TAG_NOTICE && !is_end(tag_)) {
            put_tag_back();
            return got;
        }
        if (got == Got::kItem) got = read_value();
    } while (got == Got::kItem && tag_ == CM_TAG_NOTICE);
    return got;
}

Got Reader::drop() {
    Got got = Got::kItem;
    while (got == Got::kItem && !unread(conn_).empty()) {
        got = read_tag();
        if (got == Got::kItem) got = read_value();
    }
    return got;
}

}  // namespace
}  // namespace cm::net

using namespace cm::net;

int16_t CM_CALL cm_net_put(cm_net_state *state, cm_conn *conn, int32_t tag, const void *value, int32_t length) {
    if (state == nullptr || conn == nullptr) return 0;
    const Call call(state, conn);
    // The buffer of a body that is being compressed belongs to the compressor.
    if (!call.open() || has_flag(conn, CM_CONN_CLOSED) || conn->gz != nullptr) return 0;
    Item item;
    return item.set(tag, value, length) && item.put(state, conn) ? 1 : 0;
}

int16_t CM_CALL cm_net_get(cm_net_state *state, cm_conn *conn, int32_t *out_tag, void *out_value, int32_t maximum,
                           int32_t *out_length) {
    if (out_tag != nullptr) *out_tag = 0;
    if (out_length != nullptr) *out_length = 0;
    if (state == nullptr || conn == nullptr || maximum < 0 || (out_value == nullptr && maximum > 0)) return 0;
    const Call call(state, conn);
    if (!call.open() || has_flag(conn, CM_CONN_CLOSED)) return 0;
    Reader reader(state, conn, out_value, static_cast<uint32_t>(maximum));
    const Got got = reader.next(maximum == 0);
    if (got == Got::kItem && out_tag != nullptr) *out_tag = reader.tag();
    if (got == Got::kItem && out_length != nullptr) *out_length = reader.length();
    return got != Got::kFailed ? 1 : 0;
}

int16_t CM_CALL cm_net_flush(cm_net_state *state, cm_conn *conn) {
    if (state == nullptr || conn == nullptr) return 0;
    const Call call(state, conn);
    if (!call.open() || has_flag(conn, CM_CONN_CLOSED)) return 0;
    return Reader(state, conn, nullptr, 0).drop() != Got::kFailed ? 1 : 0;
}

int32_t CM_CALL cm_cmtonettype(int32_t type) {
    return type >= 1 && type <= static_cast<int32_t>(kTagOfType.size()) ? kTagOfType[static_cast<size_t>(type - 1)] : 0;
}

int32_t CM_CALL cm_nettocmtype(int32_t tag) {
    const auto *found = std::find(kTagOfType.begin(), kTagOfType.end(), tag);
    return found != kTagOfType.end() ? static_cast<int32_t>(found - kTagOfType.begin()) + 1 : 0;
}
