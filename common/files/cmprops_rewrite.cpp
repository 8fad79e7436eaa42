// The rewriters of sectioned configuration files: each changes one section or one entry and keeps the version before
// under a backup name.
//
// A rewrite copies the file line by line into a new one beside it, which then takes its place; empty lines get lost on
// the way, since the line reader never hands them out.  Until that last step the old file stands untouched, so every
// failure leaves things as they were.  The messages name the file being read by the backup's name, under which it is
// found afterwards, and some name a sibling function: operators search their logs for these texts.
#include <string.h>

#include "core/cmerror.h"
#include "core/cmstring.h"
#include "files/cmfile.h"
#include "files/cmprops.h"
#include "files/durable.h"
#include "platform/platform.h"

namespace cm::props {
namespace {

using files::DurableFile;
using platform::os;

// A line of output is made in a buffer of this size, and a longer one is cut.
constexpr int32_t kOutputLine = 2048;

struct Target {
    cm_context *ctx;
    const char *file;
    const char *backup;
};

// What a rewriter says to a line that it has dealt with.
enum class Step { kGoOn, kFail, kLeavePartial };

void put_line(DurableFile &out, std::string_view line) {
    out.write(line);
    out.write("\n", 1);
}

// ---- what the callers hand in ---------------------------------------------------------------------------------------

// A line feed in a name or a value would add lines, and with them sections, of somebody else's choice; so would the
// name of an entry that looks like a head.
bool has_line_feed(std::string_view text) {
    return text.find('\n') != std::string_view::npos;
}

bool is_clean_entry(std::string_view name, std::string_view value) {
    return !has_line_feed(name) && !has_line_feed(value) && classify(name).kind != LineKind::kHead;
}

std::string_view printed_name(const cm_prop_entry &entry) {
    return view(entry.name, CM_LEN_TEXT);
}

std::string_view printed_value(const cm_prop_entry &entry) {
    return entry.value_length > 0 ? view(entry.value, CM_LEN_TEXT) : std::string_view();
}

struct Entries {
    const cm_prop_entry *first;
    int32_t count;

    const cm_prop_entry *begin() const { return first; }
    const cm_prop_entry *end() const { return first + count; }
};

bool is_clean(const Entries &entries) {
    if (entries.first == nullptr) return entries.count == 0;
    for (const cm_prop_entry &entry : entries)
        if (!is_clean_entry(printed_name(entry), printed_value(entry))) return false;
    return true;
}

// ---- lines that are made --------------------------------------------------------------------------------------------

// The blank before the line feed is part of the form that the section writers use.
struct EntryLine {
    explicit EntryLine(const cm_prop_entry &entry) {
        const std::string_view name = printed_name(entry), value = printed_value(entry);
        length = cm_snprintf(text, sizeof text, "%s = %s \n", name.empty() ? "" : name.data(),
                             value.empty() ? "" : value.data());
    }
    std::string_view line() const { return {text, static_cast<size_t>(length)}; }

    char text[kOutputLine];
    int32_t length;
};

void put_entries(DurableFile &out, const Entries &entries) {
    for (const cm_prop_entry &entry : entries) out.write(EntryLine(entry).line());
}

// The head of a section that the file did not have, an empty line before it.
void append_head(DurableFile &out, std::string_view section) {
    char text[kOutputLine];
    const int32_t length = cm_snprintf(text, sizeof text, "\n%c%.*s%c\n", '[', static_cast<int>(section.size()),
                                       section.empty() ? "" : section.data(), ']');
    out.write(text, static_cast<size_t>(length));
}

// The two things that the reader must get past, as they would be written.
bool is_readable_head(std::string_view section) {
    const size_t end = section.find(']');
    return section.size() + 2 <= kMaxLine && (end == std::string_view::npos ? section.size() : end) <= kMaxName;
}

bool is_readable_entry(std::string_view name, std::string_view value, std::string_view end) {
    char text[kMaxLine];
    size_t length = 0;
    for (const std::string_view part : {name, std::string_view(" = "), value, end}) {
        if (part.size() > sizeof text - length) return false;
        if (!part.empty()) memcpy(text + length, part.data(), part.size());
        length += part.size();
    }
    return is_readable({text, length});
}

// ---- lines that are met ---------------------------------------------------------------------------------------------

// The name is compared over the section's length, so that a section whose name has a "]" still finds its head.
bool is_head_of(const Line &line, std::string_view section) {
    if (line.text.size() < section.size() + 2) return false;
    return equal_folded({line.text.data() + 1, section.size()}, section) && line.text[section.size() + 1] == ']';
}

// An entry written as the name, one blank and the "=".  Kept: with no blank, or with two, it is not this entry.
bool is_entry_line(const Line &line, std::string_view name) {
    if (line.kind != LineKind::kEntry || line.text.size() < name.size() + 2) return false;
    return equal_folded({line.text.data(), name.size()}, name) && line.text[name.size()] == ' ' &&
           line.text[name.size() + 1] == '=';
}

// ---- the five edits -------------------------------------------------------------------------------------------------

// Each gets every line that was read, writes what stays or comes, and at the end of the file what is still to come.
// Kept in the first three: a head right after the section in work is not tested, so a section of the same name survives
// there.

struct DeleteSection {
    static constexpr const char *kMessageName = "cm_delete_section()";
    std::string_view section;
    int32_t *deleted;
    bool inside = false;

    Step line(std::string_view whole, const Line &line, DurableFile &out) {
        if (line.kind == LineKind::kHead) {
            inside = !inside && is_head_of(line, section);
            if (inside) *deleted = 1;
        }
        if (!inside) put_line(out, whole);
        return Step::kGoOn;
    }
    void end(DurableFile &) {}
};

struct UpdateSection {
    static constexpr const char *kMessageName = "cm_update_section()";
    cm_context *ctx;
    std::string_view section;
    Entries entries;
    bool inside = false, found = false;

    Step line(std::string_view whole, const Line &line, DurableFile &out) {
        if (line.kind == LineKind::kHead) {
            inside = !inside && is_head_of(line, section);
            found = found || inside;
        }
        if (inside && line.kind == LineKind::kEntry) return entry(whole, line.text, out);
        put_line(out, whole);
        return Step::kGoOn;
    }

    Step entry(std::string_view whole, std::string_view text, DurableFile &out) {
        const size_t length = text.find('=');
        if (length == std::string_view::npos) {
            report(ctx, CM_ERROR, "cm_update_section(): No entry was found in the section.");
            return Step::kFail;
        }
        const std::string_view name = trim_end({text.data(), length});
        if (name.size() > kMaxName) {
            report(ctx, CM_ERROR, "cm_update_section(): The name argument is > 256 bytes");
            return Step::kLeavePartial;
        }
        bool written = false;
        for (const cm_prop_entry &entry : entries) {
            if (!equal_folded(name, view(entry.name, entry.name_length))) continue;
            const size_t value_length = entry.value_length > 0 ? static_cast<size_t>(entry.value_length) : 0;
            if (name.size() + value_length >= kMaxLine) continue;
            out.write(EntryLine(entry).line());
            written = true;
        }
        if (!written) put_line(out, whole);
        return Step::kGoOn;
    }

    // Entries are only ever changed in a section that exists; a whole section is added.
    void end(DurableFile &out) {
        if (found) return;
        append_head(out, section);
        put_entries(out, entries);
    }
};

struct ReplaceSection {
    static constexpr const char *kMessageName = "cm_update_section()";
    std::string_view section;
    Entries entries;
    bool inside = false, found = false;

    Step line(std::string_view whole, const Line &line, DurableFile &out) {
        if (line.kind != LineKind::kHead) {
            if (!inside) put_line(out, whole);
            return Step::kGoOn;
        }
        inside = !inside && is_head_of(line, section);
        put_line(out, {});
        put_line(out, whole);
        if (!inside) return Step::kGoOn;
        found = true;
        put_entries(out, entries);
        put_line(out, {});
        return Step::kGoOn;
    }

    void end(DurableFile &out) {
        if (found) return;
        append_head(out, section);
        put_entries(out, entries);
    }
};

struct DeleteEntry {
    static constexpr const char *kMessageName = "cm_delete_entry()";
    std::string_view section, name;
    int32_t *deleted;
    bool inside = false;

    Step line(std::string_view whole, const Line &line, DurableFile &out) {
        if (line.kind == LineKind::kHead) inside = is_head_of(line, section);
        if (inside && is_entry_line(line, name))
            *deleted = 1;
        else
            put_line(out, whole);
        return Step::kGoOn;
    }
    void end(DurableFile &) {}
};

struct UpdateEntry {
    static constexpr const char *kMessageName = "cm_delete_entry()";
    std::string_view section, name, value;
    bool inside = false, written = false;

    Step line(std::string_view whole, const Line &line, DurableFile &out) {
        if (line.kind == LineKind::kHead) inside = is_head_of(line, section);
        if (inside && is_entry_line(line, name)) return Step::kGoOn;
        put_line(out, whole);
        if (inside && !written) put_entry(out);
        return Step::kGoOn;
    }

    void put_entry(DurableFile &out) {
        out.write(name);
        out.write(" = ");
        put_line(out, value);
        written = true;
    }

    void end(DurableFile &out) {
        if (written) return;
        append_head(out, section);
        put_entry(out);
    }
};

// ---- the rewrite ----------------------------------------------------------------------------------------------------

class Rewrite {
public:
    explicit Rewrite(const Target &target, bool reports_missing = false)
        : target_(target), reports_missing_(reports_missing) {}

    template <class Edit>
    int16_t run(Edit &&edit) {
        if (!open()) return 0;
        const Step step = copy(edit);
        if (step == Step::kFail) return 0;
        source_.close();
        const bool replaced = out_.commit(target_.backup);
        return replaced && step == Step::kGoOn;
    }

private:
    bool open() {
        // A file that cannot be read is reported under the backup's name, so it is tried before it gets a handle.
        int32_t descriptor;
        if (os.file_open(target_.file, files::kReadSequential, &descriptor) != 0) {
            platform::FileStatus status;
            if (reports_missing_ || os.path_status(target_.file, true, &status) == 0) report_open(target_.backup);
            return false;
        }
        os.file_close(descriptor);
        if (cm_fopen(target_.ctx, target_.file, files::kReadSequential, source_.out()) == 0) return false;
        if (out_.open(target_.file)) return true;
        report_open(target_.file);
        return false;
    }

    void report_open(const char *path) const { report(target_.ctx, CM_ERROR, "File open of '%s' failed.", path); }

    template <class Edit>
    Step copy(Edit &edit) {
        char buffer[kMaxLine + 1];
        for (;;) {
            int32_t length = 0;
            if (cm_fgetl(source_.get(), 0, buffer, kMaxLine, &length, nullptr) == 0) {
                report(target_.ctx, CM_ERROR, "%s: Error processing '%.255s' file (line %ld)", Edit::kMessageName,
                       target_.backup, static_cast<long>(source_.get()->lines));
                return Step::kFail;
            }
            if (length < 1) break;
            const std::string_view whole(buffer, static_cast<size_t>(length));
            const Step step = edit.line(whole, classify(whole), out_);
            // Kept: a name too long to compare ends the rewrite of a section half-way.  What was written so far takes
            // the file's place, and the whole of it is found under the backup's name.
            if (step != Step::kGoOn) return step;
        }
        edit.end(out_);
        return Step::kGoOn;
    }

    Target target_;
    bool reports_missing_;  // of the five, cm_update_entry alone says so
    files::FileCloser source_;
    DurableFile out_;
};

// Whether the names can stand for a file and its backup at all: one name for both would leave no version before.
bool is_usable(const Target &target) {
    return target.file != nullptr && target.backup != nullptr && *target.backup != '\0' &&
           strcmp(target.file, target.backup) != 0;
}

}  // namespace
}  // namespace cm::props

using namespace cm::props;

CM_API int16_t CM_CALL cm_delete_section(cm_context *ctx, const char *file, const char *backup, const char *section,
                                         int32_t section_len, int32_t *deleted) {
    int32_t ignored;
    if (deleted == nullptr) deleted = &ignored;
    *deleted = 0;
    const Target target{ctx, file, backup};
    const std::string_view name = cm::view(section, section_len);
    if (!is_usable(target) || section == nullptr || has_line_feed(name)) return 0;
    return Rewrite(target).run(DeleteSection{name, deleted});
}

CM_API int16_t CM_CALL cm_update_section(cm_context *ctx, const char *file, const char *backup, const char *section,
                                         int32_t section_len, const cm_prop_entry *entries, int32_t count) {
    const Target target{ctx, file, backup};
    const std::string_view name = cm::view(section, section_len);
    const Entries given{entries, count > 0 ? count : 0};
    if (!is_usable(target) || section == nullptr || has_line_feed(name) || !is_clean(given)) return 0;
    return Rewrite(target).run(UpdateSection{ctx, name, given});
}

CM_API int16_t CM_CALL cm_replace_section(cm_context *ctx, const char *file, const char *backup, const char *section,
                                          int32_t section_len, const cm_prop_entry *entries, int32_t count) {
    const Target target{ctx, file, backup};
    const std::string_view name = cm::view(section, section_len);
    const Entries given{entries, count > 0 ? count : 0};
    if (!is_usable(target) || section == nullptr || has_line_feed(name) || !is_clean(given)) return 0;
    // A line that the reader stops at would lock the servers out of their settings.
    if (!is_readable_head(name)) return 0;
    for (const cm_prop_entry &entry : given)
        if (!is_readable_entry(printed_name(entry), printed_value(entry), " ")) return 0;
    return Rewrite(target).run(ReplaceSection{name, given});
}

CM_API int16_t CM_CALL cm_delete_entry(cm_context *ctx, const char *file, const char *backup, const char *section,
                                       const char *name, int32_t *deleted) {
    int32_t ignored;
    if (deleted == nullptr) deleted = &ignored;
    *deleted = 0;
    const Target target{ctx, file, backup};
    if (!is_usable(target) || section == nullptr || name == nullptr) return 0;
    if (has_line_feed(section) || has_line_feed(name)) return 0;
    return Rewrite(target).run(DeleteEntry{section, name, deleted});
}

CM_API int16_t CM_CALL cm_update_entry(cm_context *ctx, const char *file, const char *backup, const char *section,
                                       const char *name, const char *value) {
    const Target target{ctx, file, backup};
    if (!is_usable(target) || section == nullptr || name == nullptr) return 0;
    const std::string_view text = cm::view(value, CM_LEN_TEXT);
    if (has_line_feed(section) || !is_clean_entry(name, text)) return 0;
    if (!is_readable_head(section) || !is_readable_entry(name, text, "")) return 0;
    return Rewrite(target, true).run(UpdateEntry{section, name, text});
}
