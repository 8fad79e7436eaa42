// Configuration files with a section of 2,000 entries, beside GKeyFile.  The files lie in memory where the system has a
// folder for that: what both wait for a disk says nothing of either.
#include <glib.h>
#include <glib/gstdio.h>

#include <fstream>
#include <string>

#include "ratio.h"
#include "tilvarcm.h"

namespace {

constexpr int kEntries = 2000;

void require(bool holds, const char *what) {
    if (holds) return;
    std::fprintf(stderr, "%s\n", what);
    std::exit(100);
}

// The same file twice, in a folder of its own.
class Sample {
public:
    Sample() {
        const bool in_memory = g_access("/dev/shm", 7) == 0;  // readable, writable, searchable
        folder_ = g_strdup_printf("%s/tilvarcm-XXXXXX", in_memory ? "/dev/shm" : g_get_tmp_dir());
        require(g_mkdtemp(folder_) != nullptr, "no folder");
        for (const std::string &path : {ours(), peers()}) {
            std::ofstream file(path);
            for (int i = 0; i < 40; i++) file << "[other " << i << "]\nname = value\n";
            file << "[common]\n";
            for (int i = 0; i < kEntries; i++)
                file << "Entry Number " << i << " = the value of entry number " << i << "\n";
        }
    }
    ~Sample() {
        for (const std::string &path : {ours(), peers(), backup()}) g_remove(path.c_str());
        g_rmdir(folder_);
        g_free(folder_);
    }
    std::string ours() const { return std::string(folder_) + "/ours.ini"; }
    std::string peers() const { return std::string(folder_) + "/peers.ini"; }
    std::string backup() const { return std::string(folder_) + "/ours.bak"; }

private:
    char *folder_;
};

int16_t CM_CALL count_entry(cm_context *, cm_value user, const char *name, const char *value) {
    cm::bench::keep(*name);
    cm::bench::keep(*value);
    ++*reinterpret_cast<int *>(user);
    return 1;
}

void load(const std::string &path) {
    int count = 0;
    const int16_t loaded = cm_props_load(nullptr, path.c_str(), "common", CM_LEN_TEXT, CM_OUT(&count), count_entry);
    require(loaded == 1 && count == kEntries, "not loaded");
}

void load_peer(const std::string &path) {
    GKeyFile *file = g_key_file_new();
    gsize count = 0;
    g_key_file_load_from_file(file, path.c_str(), G_KEY_FILE_NONE, nullptr);
    char **keys = g_key_file_get_keys(file, "common", &count, nullptr);
    for (gsize i = 0; i < count; i++) {
        char *value = g_key_file_get_value(file, "common", keys[i], nullptr);
        cm::bench::keep(*value);
        g_free(value);
    }
    require(count == kEntries, "not loaded by the peer");
    g_strfreev(keys);
    g_key_file_free(file);
}

void change(const Sample &sample) {
    require(cm_update_entry(nullptr, sample.ours().c_str(), sample.backup().c_str(), "common", "Entry Number 1000",
                            "new") == 1,
            "not changed");
}

void change_peer(const Sample &sample) {
    const std::string path = sample.peers();
    GKeyFile *file = g_key_file_new();
    g_key_file_load_from_file(file, path.c_str(), G_KEY_FILE_KEEP_COMMENTS, nullptr);
    g_key_file_set_value(file, "common", "Entry Number 1000", "new");
    require(g_key_file_save_to_file(file, path.c_str(), nullptr), "not changed by the peer");
    g_key_file_free(file);
}

}  // namespace

int main(int argc, char **argv) {
    cm::bench::Rows rows(argc, argv);
    const Sample sample;
    const std::string absolute = "/" + sample.ours();
    rows.pair(
        "config, load 2,000 entries, GKeyFile", 1, [&] { load(absolute); }, [&] { load_peer(sample.peers()); },
        "<= 0.2");
    rows.pair(
        "config, change one entry, GKeyFile", 1, [&] { change(sample); }, [&] { change_peer(sample); }, "<= 0.35");
    return rows.failures();
}
