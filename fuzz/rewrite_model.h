// The rewriters once more, on a list of lines in memory and as plainly as possible, to compare the real ones with.
#pragma once

#include <algorithm>
#include <cctype>
#include <string>
#include <vector>

namespace config_test {

struct Change {
    enum Kind { kDeleteSection, kUpdateSection, kReplaceSection, kDeleteEntry, kUpdateEntry } kind;
    std::string section;
    std::vector<std::pair<std::string, std::string>> entries;  // the entry rewriters use the first
};

struct Outcome {
    int result = 1;
    bool partial = false;  // the result is 0 and yet the file is replaced
    std::string file;
    int deleted = 0;
};

class RewriteModel {
public:
    explicit RewriteModel(const Change &change) : change_(change) {}

    Outcome apply(const std::string &text) {
        if (!refuses_nothing()) return {0, false, text, 0};
        for (const std::string &line : lines(text)) {
            if (line.size() > 1024) return {0, false, text, out_.deleted};
            const int result = take(line);
            if (result < 0) return {0, false, text, out_.deleted};
            if (result == 0) return {0, true, out_.file, out_.deleted};
        }
        finish();
        return out_;
    }

    static std::vector<std::string> lines(const std::string &text) {
        std::vector<std::string> all;
        for (size_t at = 0; at < text.size();) {
            size_t end = text.find('\n', at);
            const bool last = end == std::string::npos;
            if (last) end = text.size();
            const std::string line = text.substr(at, end - at);
            // A lone carriage return is an empty line when the line feed is in the same block of 1024 bytes.
            if (!line.empty() && (last || at % 1024 == 1023 || line != "\r")) all.push_back(line);
            at = end + 1;
        }
        return all;
    }

    static std::string trimmed(std::string text) {
        while (!text.empty() && isspace(static_cast<unsigned char>(text.back()))) text.pop_back();
        while (!text.empty() && isspace(static_cast<unsigned char>(text[0]))) text.erase(0, 1);
        return text;
    }

    static bool same(const std::string &a, const std::string &b) {
        const auto lower = [](std::string s) {
            for (char &c : s) c = static_cast<char>(c >= 'A' && c <= 'Z' ? c + 32 : c);
            return s;
        };
        return lower(a) == lower(b);
    }

private:
    static std::string left_of(const std::string &line) {
        size_t at = 0;
        while (at < line.size() && isspace(static_cast<unsigned char>(line[at]))) at++;
        return line.substr(at);
    }
    bool is_mine(const std::string &text) const {
        const std::string &s = change_.section;
        return text.size() > s.size() + 1 && same(text.substr(1, s.size()), s) && text[s.size() + 1] == ']';
    }
    bool is_entry(const std::string &text) const {
        const std::string &n = change_.entries[0].first;
        return text.size() > n.size() + 1 && same(text.substr(0, n.size()), n) && text.substr(n.size(), 2) == " =";
    }
    static bool readable(const std::string &line) {
        size_t indent = line.size() - left_of(line).size();
        if (line.size() > 1024) return false;
        const std::string text = left_of(line);
        if (text.empty() || text[0] == '#') return true;
        if (text[0] == '[') return text.find(']') != std::string::npos && text.find(']') <= 256;
        bool quoted = false;
        for (size_t i = indent; i + indent < line.size(); i++) {
            if (line[i] == '"') quoted = !quoted;
            if (line[i] == '=' && !quoted) {
                const std::string name = trimmed(line.substr(indent, i - indent));
                return !name.empty() && name.size() <= 255;
            }
        }
        return false;
    }
    bool refuses_nothing() const {
        const auto bad = [](const std::string &s) { return s.find('\n') != std::string::npos; };
        if (bad(change_.section)) return false;
        if (change_.kind == Change::kDeleteSection) return true;
        for (const auto &[name, value] : change_.entries) {
            if (change_.kind != Change::kDeleteEntry && left_of(name)[0] == '[') return false;
            if (bad(name) || (change_.kind != Change::kDeleteEntry && bad(value))) return false;
            if (change_.kind == Change::kUpdateEntry && !readable(name + " = " + value)) return false;
            if (change_.kind == Change::kReplaceSection && !readable(name + " = " + value + " ")) return false;
        }
        if (change_.kind == Change::kUpdateEntry || change_.kind == Change::kReplaceSection)
            return readable("[" + change_.section + "]");
        return true;
    }
    void put(const std::string &line) { out_.file += line + "\n"; }
    void put_entries() {
        for (const auto &[name, value] : change_.entries) out_.file += (name + " = " + value + " \n").substr(0, 2047);
    }

    // 1: go on, 0: leave it as it is now, -1: failed
    int take(const std::string &line) {
        const std::string text = left_of(line);
        const bool head = !text.empty() && text[0] == '[', comment = !text.empty() && text[0] == '#';
        const bool entry = !text.empty() && !head && !comment;
        const bool was_inside = inside_;
        const bool per_entry = change_.kind == Change::kDeleteEntry || change_.kind == Change::kUpdateEntry;
        if (head) inside_ = is_mine(text) && (per_entry || !was_inside);
        const bool entered = head && inside_;
        found_ = found_ || inside_;
        switch (change_.kind) {
            case Change::kDeleteSection:
                if (inside_) out_.deleted = 1;
                if (!inside_) put(line);
                return 1;
            case Change::kUpdateSection:
                if (!inside_ || !entry) return put(line), 1;
                return update(line, text);
            case Change::kReplaceSection:
                if (head) out_.file += "\n";
                if (head || !inside_) put(line);
                if (entered) put_entries(), out_.file += "\n";
                return 1;
            case Change::kDeleteEntry:
                if (inside_ && entry && is_entry(text)) return out_.deleted = 1;
                put(line);
                return 1;
            default:
                if (!(inside_ && entry && is_entry(text))) put(line);
                if (entered && !written_) put_entry();
                return 1;
        }
    }

    int update(const std::string &line, const std::string &text) {
        const size_t equals = text.find('=');
        if (equals == std::string::npos) return -1;
        const std::string name = trimmed(text.substr(0, equals));
        if (name.size() > 255) return 0;
        bool any = false;
        for (const auto &[key, value] : change_.entries)
            if (same(key, name) && key.size() + value.size() < 1024) {
                out_.file += (key + " = " + value + " \n").substr(0, 2047);
                any = true;
            }
        if (!any) put(line);
        return 1;
    }

    void put_entry() {
        written_ = true;
        put(change_.entries[0].first + " = " + change_.entries[0].second);
    }

    void finish() {
        if (found_ || change_.kind == Change::kDeleteSection || change_.kind == Change::kDeleteEntry) return;
        out_.file += ("\n[" + change_.section + "]\n").substr(0, 2047);
        if (change_.kind == Change::kUpdateEntry)
            put_entry();
        else
            put_entries();
    }

    const Change &change_;
    Outcome out_;
    bool inside_ = false, found_ = false, written_ = false;
};

}  // namespace config_test
