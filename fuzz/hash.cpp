// Hash tables and key tables: sequences of operations against lists of keys in chain order, cursors and walks included.
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "input.h"
#include "tilvarcm.h"

namespace {

using cm::fuzz::check;
using cm::fuzz::Input;

uint32_t hash_of(const std::string &key) {
    uint32_t h = 0;
    if (key.size() != 4) {
        for (const unsigned char c : key) h = h * 31 + c;
        return h;
    }
    memcpy(&h, key.data(), 4);
    h += h << 12, h ^= h >> 22, h += h << 4, h ^= h >> 9, h += h << 10, h ^= h >> 2, h += h << 7, h ^= h >> 12;
    return h;
}

std::string key_of(const cm_hash_entry_rec *entry) {
    check(entry->key[entry->key_length] == '\0');
    return std::string(entry->key, static_cast<size_t>(entry->key_length));
}

struct Item {
    std::string key;
    cm_value value;
};

// Chains as vectors, newest first.  A cursor stands on a key of its bucket, on none, or beyond the end.
class Model {
public:
    explicit Model(uint32_t buckets) : chains_(buckets + 1) {}

    std::vector<Item> &chain(const std::string &key) { return chains_[hash_of(key) % buckets()]; }
    Item *find(const std::string &key) {
        for (Item &item : chain(key))
            if (item.key == key) return &item;
        return nullptr;
    }
    void set(const std::string &key, cm_value value) {
        Item *known = find(key);
        if (known != nullptr)
            known->value = value;
        else
            chain(key).insert(chain(key).begin(), {key, value}), entries++;
    }
    void take_out(const std::string &key) {
        std::vector<Item> &from = chain(key);
        const auto at = std::find_if(from.begin(), from.end(), [&](const Item &item) { return item.key == key; });
        for (Cursor &cursor : cursors) {
            if (!cursor.on || cursor.key != key) continue;
            cursor.on = at != from.begin();
            if (cursor.on)
                cursor.key = (at - 1)->key;
            else if (cursor.bucket > 0)
                cursor.bucket--;
        }
        from.erase(at);
    }
    // Stepping: the item the cursor comes to; null at the end.
    const Item *first(int number) {
        cursors[number] = {0, false, {}};
        return chains_[0].empty() ? step(cursors[number]) : stand(cursors[number], chains_[0][0]);
    }
    bool can_step(int number) const { return cursors[number].bucket <= buckets(); }
    const Item *next(int number) {
        Cursor &cursor = cursors[number];
        if (cursor.on) {
            const std::vector<Item> &in = chains_[cursor.bucket];
            auto at = std::find_if(in.begin(), in.end(), [&](const Item &item) { return item.key == cursor.key; });
            check(at != in.end());
            if (++at != in.end()) return stand(cursor, *at);
        }
        return step(cursor);
    }
    void clear() {
        for (auto &each : chains_) each.clear();
        for (Cursor &cursor : cursors) cursor.on = false;
        entries = 0;
    }
    std::vector<std::string> keys() const {
        std::vector<std::string> all;
        for (const auto &each : chains_)
            for (const Item &item : each) all.push_back(item.key);
        return all;
    }
    uint32_t buckets() const { return static_cast<uint32_t>(chains_.size() - 1); }

    struct Cursor {
        uint32_t bucket = 0;
        bool on = false;
        std::string key;
    };
    Cursor cursors[4];
    int32_t entries = 0;

private:
    const Item *stand(Cursor &cursor, const Item &item) {
        cursor.on = true;
        cursor.key = item.key;
        return &item;
    }
    const Item *step(Cursor &cursor) {
        cursor.on = false;
        while (++cursor.bucket <= buckets())
            if (!chains_[cursor.bucket].empty()) return stand(cursor, chains_[cursor.bucket][0]);
        return nullptr;
    }

    std::vector<std::vector<Item>> chains_;
};

class Session {
public:
    Session(Input &input, bool pooled) : input_(input), model_(1 + input.byte() % 13) {
        if (pooled) check(cm_mem_init(nullptr, &pool_, 256) == 1);
        check(cm_hash_alloc(nullptr, pool_, model_.buckets(), &table_) == 1);
        check(cm_key_alloc(nullptr, pool_, nullptr, &keys_) == 1);
    }
    ~Session() {
        destroyed_ = 0;
        check(cm_hash_free(table_, count_destroyed) == 1);
        check(destroyed_ == model_.keys().size());
        check(cm_key_free(keys_, nullptr) == 1);
        cm_mem_exit(pool_);
    }
    Session(const Session &) = delete;
    Session &operator=(const Session &) = delete;

    void operate() {
        const uint32_t operation = input_.byte() % 16;
        switch (operation) {
            case 0:
            case 1:
            case 2:
            case 3:
                set();
                break;
            case 4:
            case 5:
                remove();
                break;
            case 6:
                find();
                break;
            case 7:
            case 8:
            case 9:
                next();
                break;
            case 10:
                first();
                break;
            case 11:
            case 12:
                remove_current();
                break;
            case 13:
                walk();
                break;
            case 14:
                table_->key_min = static_cast<int32_t>(input_.byte() % 40) - 4;
                break;
            default:
                maybe_clear();
                break;
        }
        check(table_->entries == model_.entries);
    }

private:
    // Few keys, many collisions, also of length 4.
    std::string key() {
        std::string made(1 + input_.byte() % 6, 'a');
        for (char &c : made) c = "ABa"[input_.byte() % 3];  // "Aa" and "BB" have one hash
        return made;
    }
    static int32_t length_of(const std::string &key) { return static_cast<int32_t>(key.size()); }

    void set() {
        const std::string k = key();
        const cm_value value = input_.byte();
        check(cm_hash_entry(table_, CM_OP_SET, k.data(), length_of(k), value) == 1);
        check(cm_key_entry(keys_, CM_OP_SET, k.c_str(), CM_LEN_TEXT, value) == 1);
        model_.set(k, value);
        plain_[k] = value;
    }
    void find() {
        const std::string k = key();
        const Item *item = model_.find(k);
        cm_value value = 1;
        check(cm_hash_entry(table_, CM_OP_FIND, k.c_str(), CM_LEN_TEXT, CM_OUT(&value)) == (item != nullptr));
        check(value == (item != nullptr ? item->value : 0));
        const bool known = plain_.count(k) != 0;
        check(cm_key_entry(keys_, CM_OP_FIND, k.data(), length_of(k), CM_OUT(&value)) == known);
        check(value == (known ? plain_[k] : 0));
    }
    void remove() {
        const std::string k = key();
        const Item *item = model_.find(k);
        cm_value value = 0;
        check(cm_hash_entry(table_, CM_OP_DELETE, k.data(), length_of(k), CM_OUT(&value)) == (item != nullptr));
        if (item != nullptr) {
            check(value == item->value);
            model_.take_out(k);
            model_.entries--;
        }
        check(cm_key_entry(keys_, CM_OP_DELETE, k.data(), length_of(k), 0) == static_cast<int16_t>(plain_.erase(k)));
    }
    void arrive(int32_t operation, int32_t cursor, const Item *expected) {
        cm_hash_entry_rec *entry = nullptr;
        check(cm_hash_entry(table_, operation, &cursor, 0, CM_OUT(&entry)) == 1);
        check((entry == nullptr) == (expected == nullptr));
        if (entry != nullptr) check(key_of(entry) == expected->key && entry->value == expected->value);
    }
    void first() {
        const auto cursor = static_cast<int32_t>(input_.byte() % 4);
        arrive(CM_OP_FIRST, cursor, model_.first(cursor));
    }
    void next() {
        const auto cursor = static_cast<int32_t>(input_.byte() % 4);
        if (model_.can_step(cursor)) arrive(CM_OP_NEXT, cursor, model_.next(cursor));
    }
    void remove_current() {
        const auto number = static_cast<int32_t>(input_.byte() % 4);
        const Model::Cursor &cursor = model_.cursors[number];
        if (!model_.can_step(number) || !cursor.on) return;
        const std::string k = cursor.key;
        cm_value value = 0;
        check(cm_hash_entry(table_, CM_OP_DELETE_CURRENT, &number, 0, CM_OUT(&value)) == 1);
        check(value == model_.find(k)->value);
        model_.take_out(k);
        model_.entries--;
    }
    void maybe_clear() {
        if (input_.byte() % 4 != 0) return;
        destroyed_ = 0;
        check(cm_hash_clear(table_, count_destroyed) == 1);
        check(destroyed_ == model_.keys().size());
        model_.clear();
    }
    // The visitor takes entries out, by its result or itself, as the input says.
    void walk() {
        seen_.clear();
        const std::vector<std::string> expected = model_.keys();
        const int16_t result = cm_hash_walk(table_, reinterpret_cast<cm_value>(this), visit);
        check(result == 0 || result == 1);
        size_t i = 0;
        for (const std::string &k : seen_) {  // in order; what was taken out before its turn is left out
            while (i < expected.size() && expected[i] != k) i++;
            check(i++ < expected.size());
        }
    }
    int32_t visit(const std::string &k) {
        seen_.push_back(k);
        const uint32_t choice = input_.byte() % 16;
        if (choice == 0 && model_.find(k) != nullptr) return model_.take_out(k), CM_WALK_REMOVE;
        if (choice == 1) remove();
        if (choice == 2) {
            check(cm_hash_entry(table_, CM_OP_DELETE, k.data(), length_of(k), 0) == 1);
            model_.take_out(k);
            model_.entries--;
            return CM_WALK_REMOVE;
        }
        return choice == 15 ? CM_WALK_STOP_OK : choice == 14 ? CM_WALK_STOP_FAIL : 0;
    }
    static int32_t CM_CALL visit(cm_hash *, cm_value user, cm_hash_entry_rec *entry) {
        auto *session = reinterpret_cast<Session *>(user);
        const std::string k = key_of(entry);
        check(session->model_.find(k) != nullptr && session->model_.find(k)->value == entry->value);
        return session->visit(k);
    }
    static void CM_CALL count_destroyed(cm_value) { destroyed_++; }

    static inline size_t destroyed_ = 0;
    Input &input_;
    Model model_;
    std::map<std::string, cm_value> plain_;
    std::vector<std::string> seen_;
    cm_mem_pool *pool_ = nullptr;
    cm_hash *table_ = nullptr;
    cm_keytab *keys_ = nullptr;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    Input input(data, size);
    Session session(input, input.byte() % 2 == 0);
    while (!input.empty()) session.operate();
    return 0;
}
