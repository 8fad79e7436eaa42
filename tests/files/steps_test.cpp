// Files, paths, logs and folders as scenarios.
#include <set>
#include <utility>

#include "files/fixture.h"
#include "support/scenario.h"

namespace cm::test {
namespace {

using std::string;

constexpr std::pair<const char *, int32_t> kFlags[] = {
    {"read", CM_O_RDONLY},
    {"fresh", CM_O_RDWR | CM_O_CREAT | CM_O_TRUNC},
    {"binary", CM_O_BINARY},
    {"append", CM_O_RDWR | CM_O_APPEND | CM_O_CREAT},
};

// The steps of data/lines.txt, rotation.txt, paths.txt and folders.txt.  Names are relative to a folder of the case.
struct Steps : World, FileContext {
    explicit Steps(const Row &, bool texts_in_memory = false) {
        cm_create_mutex(ctx, &mutex);
        on("write", [this](auto &words) { folder.write(words[0], words.rest(1)); });
        on("content", [this](auto &words) { return folder.read(words[0]); });
        on("names", [this](auto &words) {
            string all;
            for (const string &name : folder.names(words[0])) all += (all.empty() ? "" : " ") + name;
            return all;
        });
        on("remove", [this](auto &words) { folder.remove(words[0]); });
        on("make", [this](auto &words) { folder.make_folder(words[0]); });
        on("tree", [this](auto &words) {
            folder.write(words[0] + "/one.txt", "1");
            folder.write(words[0] + "/two.TXT", "22");
            folder.write(words[0] + "/.hidden", "333");
            folder.write(words[0] + "/sub/three", "4444");
        });
        on("without", [this](auto &words) {
            const string what = words[0];
            const Replace<&Table::path_rename> rename(
                [&](auto... all) { return what == "renames" ? CM_EACCES : rename.real(all...); });
            const Replace<&Table::path_remove> remove(
                [&](auto... all) { return what == "removals" ? CM_EACCES : remove.real(all...); });
            const Replace<&Table::file_open> open(
                [&](auto... all) { return what == "opens" ? CM_EMFILE : open.real(all...); });
            const Replace<&Table::directory_open> listing(
                [&](auto... all) { return what == "listings" ? CM_EACCES : listing.real(all...); });
            return run(words.from(1));
        });
        on("recorded", [this](auto &words) {
            const CallRecorder calls(folder.path() + "/");
            run(words);
            return calls.text();
        });
        on("told", [this](auto &words) {
            const string result = run(words);
            return result + " " + said();
        });
        handles(texts_in_memory);
        paths();
        folders();
    }
    ~Steps() {
        if (file != nullptr) cm_fclose(file);
        EXPECT_EQ("", said());
        EXPECT_EQ(0, ctx->file_open);
        cm_delete_mutex(mutex);
    }

    void handles(bool texts_in_memory) {
        on("text", [this, texts_in_memory](auto &words) {
            const string text = words.rest(0);
            if (texts_in_memory) return cm_fopens(ctx, "text", text_.assign(text).data(), int32_t(text.size()), &file);
            return cm_fopen(ctx, folder.write("text", text).c_str(), CM_O_RDONLY, &file);
        });
        on("open", [this](auto &words) { return cm_fopen(ctx, at(words, 0).c_str(), flags(words), &file); });
        on("openc", [this](auto &words) { return cm_fopenc(ctx, at(words, 0).c_str(), flags(words), &file); });
        on("log", [this](auto &words) { return cm_fopenl(ctx, words.text(0), flags(words), &file); });
        on("close", [this](auto &) { return cm_fclose(std::exchange(file, nullptr)); });
        on("rotate", [this](auto &words) {
            return cm_lrotate(file, mutex, words.text(0), words[1] == "-" ? nullptr : words.text(1), 0);
        });
        on("line", [this](auto &words) { return line(number(words, 0), words[1] == "cut"); });
        on("lines", [this](auto &words) {
            string all, next;
            while (!(next = line(number(words, 0), false)).empty() && next != "fails") all += "[" + next + "]";
            return all + next + "=" + std::to_string(file->lines);
        });
        on("read", [this](auto &words) {
            string bytes(static_cast<size_t>(words.number(0)), '?');
            int32_t got = 0;
            if (cm_fread(file, bytes.data(), number(words, 0), &got) == 0) return string("fails");
            return bytes.substr(0, static_cast<size_t>(got));
        });
        on("position", [this](auto &) { return file->position; });
        on("seek", [this](auto &words) { return cm_lseek(file, number(words, 0), number(words, 1)); });
        on("put", [this](auto &words) {
            int32_t written = -1;
            const int16_t done = cm_fwrite(file, words.text(1), number(words, 0), &written);
            return std::to_string(done) + " " + std::to_string(written);
        });
        on("hex", [this](auto &words) {
            return cm_hexwrite(file, mutex, words.rest(1).data(), static_cast<int32_t>(words.number(0)));
        });
        on("line-out",
           [this](auto &words) { return cm_lwrite(file, words.text(1), CM_LEN_TEXT, 0, mutex, number(words, 0)); });
    }
    void paths() {
        on("stat", [this](auto &words) {
            cm_stat_rec record;
            if (cm_stat(ctx, at(words, 0).c_str(), 0, &record) == 0) return string("-");
            EXPECT_EQ(0100000u, record.mode & 0170000u);
            EXPECT_GE(0xFFFFu, record.index);
            EXPECT_GT(record.mtime, 1700000000u);
            return std::to_string(record.size);
        });
        on("is-file", [this](auto &words) { return cm_isfile(ctx, at(words, 0).c_str(), 0); });
        on("is-program", [this](auto &words) { return cm_isexe(ctx, at(words, 0).c_str(), 0); });
        on("is-folder", [this](auto &words) { return cm_isdirectory(at(words, 0).c_str()); });
        on("is-empty", [this](auto &words) { return cm_isempty(at(words, 0).c_str()); });
        on("is-read-only", [this](auto &words) { return cm_isreadonly(at(words, 0).c_str()); });
        on("may-be-read", [this](auto &words) { return cm_access(at(words, 0).c_str(), CM_ACCESS_READ); });
        on("mode", [this](auto &words) {
            return os.path_set_mode(at(words, 0).c_str(), static_cast<uint32_t>(words.number(1))) == 0;
        });
        on("rename", [this](auto &words) { return cm_rename(at(words, 0).c_str(), at(words, 1).c_str()); });
        on("unlink", [this](auto &words) {
            const FrozenClock clock;
            const int16_t done = cm_unlink(at(words, 0).c_str(), number(words, 1));
            return std::to_string(done) + " " + std::to_string(clock.slept_ms());
        });
        on("copy", [this](auto &words) { return cm_cp(ctx, at(words, 0).c_str(), at(words, 1).c_str()); });
        on("truncate", [this](auto &words) { return cm_ftruncate(ctx, at(words, 0).c_str(), number(words, 1)); });
    }
    void folders() {
        on("mkdir", [this](auto &words) { return cm_mkdir(at(words, 0).c_str()); });
        on("rmdir", [this](auto &words) { return cm_rmdir(at(words, 0).c_str()); });
        on("copy-folder", [this](auto &words) { return cm_cpdir(ctx, at(words, 0).c_str(), at(words, 1).c_str()); });
        on("size", [this](auto &words) { return static_cast<int32_t>(cm_dirsize(at(words, 0).c_str())); });
        on("files", [this](auto &words) { return cm_dirfiles(at(words, 0).c_str()); });
        on("match", [this](auto &words) {
            cm_glob listing;
            cm_dirent entry;
            std::set<string> names;
            if (cm_globinit(at(words, 0).c_str(), words.text(1), &listing) == 0) return string("nothing");
            while (cm_globread(&listing, &entry) == 1 && entry.kind != 1) names.insert(entry.name);
            EXPECT_EQ(1, cm_globfree(&listing));
            string all;
            for (const string &name : names) all += (all.empty() ? "" : " ") + name;
            return all;
        });
    }

    static int32_t number(const Words &words, size_t index) { return static_cast<int32_t>(words.number(index)); }
    string at(const Words &words, size_t index) const { return path(words[index]); }
    static int32_t flags(const Words &words) {
        int32_t all = 0;
        for (size_t i = 1; i < words.count(); i++)
            for (const auto &[name, flag] : kFlags) all |= words[i] == name ? flag : 0;
        return all;
    }
    // The messages since the last call, without what stands before each, "~" for the folder.
    string said() {
        string text = errors();
        for (const string &cut : {string("Tilvar Server Error: "), folder.absolute(), folder.path()})
            for (size_t place; (place = text.find(cut)) != text.npos;)
                text.replace(place, cut.size(), cut[0] == 'T' ? "" : "~");
        return text;
    }
    string line(int32_t size, bool cut) {
        std::vector<char> text(static_cast<size_t>(size) + 1, '?');
        int32_t got = -1, full = -1;
        if (cm_fgetl(file, cut, text.data(), size, &got, &full) == 0) return "fails";
        EXPECT_EQ(size == 0 ? '?' : '\0', text[static_cast<size_t>(got)]);
        EXPECT_TRUE(cut || full == got);
        return string(text.data(), static_cast<size_t>(got)) + (full > got ? " of " + std::to_string(full) : "");
    }

    cm_mutex *mutex = nullptr;
    cm_file *file = nullptr;

private:
    string text_;
};
struct StepsInMemory : Steps {
    explicit StepsInMemory(const Row &head) : Steps(head, true) {}
};
SCENARIOS(LinesOfFiles, Steps, "files/lines");
SCENARIOS(LinesInMemory, StepsInMemory, "files/lines");
SCENARIOS(FileSteps, Steps, "files/handles");
SCENARIOS(PathSteps, Steps, "files/paths");
SCENARIOS(FolderSteps, Steps, "files/folders");
SCENARIOS(LogRotation, Steps, "files/rotation");

}  // namespace
}  // namespace cm::test
