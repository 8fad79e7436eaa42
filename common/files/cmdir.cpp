// Directory listings and the helpers that walk a tree.
//
// A listing follows links, as every reader of a folder expects.  The helpers that walk never do: a link counts as
// itself wherever it stands, so that removing a tree removes nothing outside it and no walk goes round in a circle. How
// deep they go is bounded by the longest path that can be listed.
#include "files/cmdir.h"

#include <string.h>

#include <algorithm>

#include "core/cmstring.h"
#include "files/cmfile.h"
#include "files/cmpath.h"
#include "platform/platform.h"

namespace cm::files {

using platform::FileStatus;
using platform::FileType;
using platform::os;

namespace {

constexpr size_t kLongestPath = 259;    // of a folder that is listed, and of a name in it
constexpr size_t kLongestJoined = 261;  // a path and a name with fewer bytes than this together are examined
constexpr int32_t kEnd = 1, kDirectory = 2, kFile = 3, kOther = 5;

constexpr bool is_continuation(char c) {
    return (static_cast<unsigned char>(c) & 0xC0) == 0x80;
}

constexpr size_t character_length(std::string_view text) {
    size_t length = 1;
    while (length < text.size() && is_continuation(text[length])) length++;
    return length;
}

}  // namespace

bool matches_pattern(std::string_view pattern, std::string_view name) {
    if (pattern == "*.*") return true;
    constexpr size_t kNone = static_cast<size_t>(-1);
    size_t p = 0, n = 0, star = kNone, resume = 0;
    while (n < name.size()) {
        const std::string_view rest(name.data() + n, name.size() - n);
        if (p < pattern.size() && pattern[p] == '*') {
            star = p++;
            resume = n;
        } else if (p < pattern.size() && pattern[p] == '?') {
            p++;
            n += character_length(rest);
        } else if (p < pattern.size() && fold(pattern[p]) == fold(name[n])) {
            p++;
            n++;
        } else if (star != kNone) {
            // Only the last star takes more: what stood before it has matched and never needs another try.
            p = star + 1;
            n = ++resume;
        } else {
            return false;
        }
    }
    while (p < pattern.size() && pattern[p] == '*') p++;
    return p == pattern.size();
}

namespace {

// ---- listings -------------------------------------------------------------------------------------------------------

// Copies the path of a listing without its one trailing separator, and opens the search.
bool open_search(const char *path, char *stored, int32_t *stored_length, void **out_search) {
    size_t length = path == nullptr ? 0 : strlen(path);
    if (length < 1 || length > kLongestPath) return false;
    if (is_separator(path[length - 1])) length--;
    // For the system a separator at the end does no harm, and a root is not a root without one.
    char searched[kLongestPath + 2];
    memcpy(searched, path, length);
    memcpy(searched + length, "/", 2);
    if (os.directory_open(searched, out_search) != 0) return false;
    memcpy(stored, path, length);
    stored[length] = '\0';
    *stored_length = static_cast<int32_t>(length);
    return true;
}

bool join(char *out, std::string_view path, std::string_view name) {
    if (path.size() + name.size() >= kLongestJoined) return false;
    memcpy(out, path.data(), path.size());
    out[path.size()] = '/';
    memcpy(out + path.size() + 1, name.data(), name.size());
    out[path.size() + 1 + name.size()] = '\0';
    return true;
}

int32_t kind_of(FileType type) {
    if (type == FileType::kDirectory) return kDirectory;
    return type == FileType::kRegular ? kFile : kOther;
}

// Fills everything but the name from the file itself.
void examine_entry(std::string_view path, cm_dirent *entry) {
    entry->kind = kOther;
    entry->mode = entry->links = entry->size = entry->mtime = 0;
    char joined[kLongestJoined + 2];
    FileStatus status;
    cm_stat_rec record;
    if (!join(joined, path, entry->name) || os.path_status(joined, true, &status) != 0) return;
    fill_stat(status, &record);
    entry->kind = kind_of(status.type);
    entry->mode = record.mode;
    entry->links = status.links;
    entry->size = record.size;
    entry->mtime = record.mtime;
}

void end_listing(cm_dirent *entry) {
    *entry = {};
    entry->kind = kEnd;
}

// What a pattern listing searches with.  The first match is found when the listing is opened.
struct PatternSearch {
    void *search;
    size_t pattern_length;
    char pattern[kLongestPath + 1];
    char first[kLongestPath + 1];
};

bool next_match(PatternSearch *search, char *name) {
    const std::string_view pattern(search->pattern, search->pattern_length);
    while (os.directory_next(search->search, name, kLongestPath + 1))
        if (matches_pattern(pattern, name)) return true;
    return false;
}

void free_search(PatternSearch *search) {
    os.directory_close(search->search);
    os.release(search);
}

// ---- walks ----------------------------------------------------------------------------------------------------------

// The path of the place where a walk stands: one buffer for all its levels.
class WalkPath {
public:
    explicit WalkPath(const char *path) {
        const size_t length = path == nullptr ? 0 : strlen(path);
        if (length == 0 || length >= sizeof text_) return;
        memcpy(text_, path, length);
        length_ = length;
    }

    bool valid() const { return length_ > 0; }
    const char *text() const { return text_; }
    size_t length() const { return length_; }
    bool enter(std::string_view name) {
        if (length_ + 1 + name.size() >= sizeof text_) return false;
        text_[length_++] = '/';
        memcpy(text_ + length_, name.data(), name.size());
        length_ += name.size();
        text_[length_] = '\0';
        return true;
    }
    void leave(size_t length) {
        length_ = length;
        text_[length_] = '\0';
    }

private:
    char text_[1024] = {};
    size_t length_ = 0;
};

class Listing {
public:
    explicit Listing(const WalkPath &path) {
        char stored[kLongestPath + 1];
        int32_t length = 0;
        open_ = open_search(path.text(), stored, &length, &search_);
    }
    ~Listing() {
        if (open_) os.directory_close(search_);
    }
    Listing(const Listing &) = delete;
    Listing &operator=(const Listing &) = delete;

    bool is_open() const { return open_; }
    // The next name but "." and "..".
    bool next(char (&name)[kLongestPath + 1]) {
        while (os.directory_next(search_, name, sizeof name))
            if (strcmp(name, ".") != 0 && strcmp(name, "..") != 0) return true;
        return false;
    }

private:
    void *search_ = nullptr;
    bool open_ = false;
};

bool examine_itself(const WalkPath &path, FileStatus *status) {
    return path.valid() && os.path_status(path.text(), false, status) == 0;
}

// Calls `visit` at every entry of the folder, with the path standing at it, until one gives false.
template <class Visit>
bool for_each_entry(Listing &listing, WalkPath &path, bool hidden, Visit visit) {
    char name[kLongestPath + 1];
    const size_t length = path.length();
    while (listing.next(name)) {
        if (!hidden && name[0] == '.') continue;
        const bool go_on = path.enter(name) && visit(name);
        path.leave(length);
        if (!go_on) return false;
    }
    return true;
}

bool remove_tree(WalkPath &path);

// What a listing shows as kind 5 is left, a link that leads nowhere among it; then the folder stays as well.
bool remove_entry(WalkPath &path) {
    FileStatus status, linked;
    if (path.length() > kLongestJoined || !examine_itself(path, &status)) return true;
    if (status.type == FileType::kDirectory) return remove_tree(path);
    if (status.type == FileType::kLink)
        return os.path_status(path.text(), true, &linked) != 0 || kind_of(linked.type) == kOther ||
               cm_unlink(path.text(), 2) != 0;
    if (status.type != FileType::kRegular) return true;
    // What goes at once needs no new mode, which another name of the same file would keep.
    if (os.path_remove(path.text()) == 0) return true;
    os.path_set_mode(path.text(), 0777);
    return cm_unlink(path.text(), 2) != 0;
}

bool remove_tree(WalkPath &path) {
    {
        Listing listing(path);
        if (!listing.is_open()) return false;
        if (!for_each_entry(listing, path, true, [&](const char *) { return remove_entry(path); })) return false;
    }
    return os.directory_remove(path.text()) == 0;
}

// -1: cannot be examined, and counts as that in a sum.
int64_t tree_size(WalkPath &path) {
    FileStatus status;
    if (!examine_itself(path, &status)) return -1;
    if (status.type != FileType::kDirectory)
        return static_cast<int64_t>(std::min<uint64_t>(status.size, INT64_MAX / 2));
    Listing listing(path);
    if (!listing.is_open()) return 0;
    uint64_t sum = 0;
    for_each_entry(listing, path, false, [&](const char *) {
        sum += static_cast<uint64_t>(tree_size(path));
        return true;
    });
    return static_cast<int64_t>(sum);
}

int64_t tree_files(WalkPath &path) {
    FileStatus status;
    if (!examine_itself(path, &status)) return -1;
    if (status.type == FileType::kRegular) return 1;
    if (status.type != FileType::kDirectory) return 0;
    Listing listing(path);
    if (!listing.is_open()) return -1;
    int64_t sum = 0;
    for_each_entry(listing, path, false, [&](const char *) {
        sum += tree_files(path);
        return true;
    });
    return sum;
}

bool copy_tree(cm_context *ctx, WalkPath &from, WalkPath &to);

bool copy_entry(cm_context *ctx, WalkPath &from, WalkPath &to) {
    FileStatus status, present;
    if (!examine_itself(from, &status)) return false;
    if (status.type == FileType::kDirectory) return copy_tree(ctx, from, to);
    if (status.type != FileType::kRegular) return false;
    // A link in the place of the copy would lead the copy out of the tree.
    if (examine_itself(to, &present) && present.type == FileType::kLink) return false;
    return cm_cp(ctx, from.text(), to.text()) != 0;
}

bool copy_tree(cm_context *ctx, WalkPath &from, WalkPath &to) {
    FileStatus source, target;
    if (!examine_itself(from, &source) || source.type != FileType::kDirectory || !to.valid()) return false;
    const bool present = examine_itself(to, &target) && target.type == FileType::kDirectory;
    if (!present && os.directory_create(to.text()) != 0) return false;
    Listing listing(from);
    if (!listing.is_open()) return false;
    const size_t length = to.length();
    return for_each_entry(listing, from, true, [&](const char *name) {
        const bool copied = to.enter(name) && copy_entry(ctx, from, to);
        to.leave(length);
        return copied;
    });
}

}  // namespace
}  // namespace cm::files

using namespace cm;
using namespace cm::files;

int16_t cm_opendir(const char *path, cm_dir *listing) {
    if (listing == nullptr) return 0;
    *listing = {};
    return open_search(path, listing->path, &listing->path_length, &listing->search) ? 1 : 0;
}

int16_t cm_readdir(cm_dir *listing, cm_dirent *entry) {
    if (listing == nullptr || listing->search == nullptr || entry == nullptr) return 0;
    end_listing(entry);
    if (!os.directory_next(listing->search, entry->name, sizeof entry->name)) {
        end_listing(entry);
        return 1;
    }
    examine_entry({listing->path, static_cast<size_t>(listing->path_length)}, entry);
    return 1;
}

int16_t cm_closedir(cm_dir *listing) {
    if (listing == nullptr || listing->search == nullptr) return 0;
    os.directory_close(listing->search);
    listing->search = nullptr;
    return 1;
}

int16_t cm_globinit(const char *directory, const char *pattern, cm_glob *listing) {
    if (listing == nullptr) return 0;
    *listing = {};
    const std::string_view wanted = view(pattern, CM_LEN_TEXT);
    if (wanted.empty() || wanted.size() > kLongestPath) return 0;
    auto *search = static_cast<PatternSearch *>(os.allocate_zeroed(sizeof(PatternSearch)));
    if (search == nullptr) return 0;
    if (!open_search(directory, listing->path, &listing->path_length, &search->search)) {
        os.release(search);
        return 0;
    }
    memcpy(search->pattern, wanted.data(), wanted.size());
    search->pattern_length = wanted.size();
    if (!next_match(search, search->first)) {
        free_search(search);
        return 0;
    }
    listing->search = search;
    listing->find_record = search->first;
    listing->have_first = 1;
    return 1;
}

int16_t cm_globread(cm_glob *listing, cm_dirent *entry) {
    if (listing == nullptr || listing->search == nullptr || entry == nullptr) return 0;
    auto *search = static_cast<PatternSearch *>(listing->search);
    end_listing(entry);
    if (listing->have_first != 0) {
        listing->have_first = 0;
        memcpy(entry->name, search->first, sizeof entry->name);
    } else if (!next_match(search, entry->name)) {
        end_listing(entry);
        return 1;
    }
    examine_entry({listing->path, static_cast<size_t>(listing->path_length)}, entry);
    return 1;
}

int16_t cm_globfree(cm_glob *listing) {
    if (listing == nullptr || listing->search == nullptr) return 0;
    free_search(static_cast<PatternSearch *>(listing->search));
    listing->search = listing->find_record = nullptr;
    return 1;
}

int16_t cm_mkdir(const char *path) {
    return path != nullptr && os.directory_create(path) == 0 ? 1 : 0;
}

int16_t cm_rmdir(const char *path) {
    WalkPath walk(path);
    FileStatus status;
    if (path == nullptr) return 0;
    // Kept: what is no folder counts as removed already.
    if (os.path_status(path, false, &status) != 0 || status.type != FileType::kDirectory) return 1;
    return walk.valid() && remove_tree(walk) ? 1 : 0;
}

uint32_t cm_dirsize(const char *path) {
    WalkPath walk(path);
    const int64_t size = tree_size(walk);
    // All bits set means "cannot be examined", so a true size stops one short of it.
    return size < 0 ? static_cast<uint32_t>(size) : static_cast<uint32_t>(std::min<int64_t>(size, UINT32_MAX - 1));
}

int32_t cm_dirfiles(const char *path) {
    WalkPath walk(path);
    return static_cast<int32_t>(std::clamp<int64_t>(tree_files(walk), INT32_MIN, INT32_MAX));
}

int16_t cm_cpdir(cm_context *ctx, const char *from, const char *to) {
    WalkPath source(from), target(to);
    return copy_tree(ctx, source, target) ? 1 : 0;
}
