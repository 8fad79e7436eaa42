// A command of the schedule as a process: no shell, its three streams in temporary files, what it wrote to the error
// stream copied into the log.
#include <string.h>

#include "core/cmerror.h"
#include "files/cmcron.h"
#include "platform/platform.h"

namespace cm::cron {

namespace {

using platform::os;

constexpr int32_t kNameDraws = 16;  // a name that exists already may be a trap: draw another number
constexpr int32_t kLastNumber = 999999;
constexpr int32_t kEndWait = 3000;  // milliseconds after a process was ended by force

// The three files, created exclusively; removed at the end.
class StreamFiles {
public:
    explicit StreamFiles(cm_context *ctx) : ctx_(ctx) {}
    ~StreamFiles() {
        for (int i = 0; i < 3; i++) {
            close(i);
            if (made_[i]) os.path_remove(path_[i]);
        }
    }
    StreamFiles(const StreamFiles &) = delete;
    StreamFiles &operator=(const StreamFiles &) = delete;

    bool create() {
        int failed = 0;
        for (int draw = 0; draw < kNameDraws; draw++) {
            const int32_t number = cm_random(1, kLastNumber);
            failed = 0;
            while (failed < 3 && create_one(failed, number)) failed++;
            if (failed == 3) return true;
            for (int i = 0; i <= failed; i++) remove(i);
        }
        constexpr const char *kStreams[] = {"STDIN", "STDOUT", "STDERR"};
        report(ctx_, CM_ERROR, "cm__cron_usertask(%s): File open of '%s' failed.", kStreams[failed], path_[failed]);
        return false;
    }

    const int32_t *descriptors() const { return descriptor_; }

    void close_all() {
        for (int i = 0; i < 3; i++) close(i);
    }

    // Input and output go; the error file's text, if any, goes into the log first.  A file that somebody has put in its
    // place meanwhile is not read: its text may be none of the log's business.
    void log_errors(const char *command) {
        remove(0);
        remove(1);
        platform::FileStatus found;
        if (os.path_status(path_[2], false, &found) == 0 && found.index == error_file_.index &&
            found.device == error_file_.device && found.size > 0) {
            char heading[kMessageSize];
            cm_snprintf(heading, sizeof heading, "CRON %s stderr...", command);
            cm_logfile(ctx_, heading, path_[2]);
        }
        remove(2);
    }

private:
    bool create_one(int i, int32_t number) {
        constexpr char kLetter[] = {'i', 'o', 'e'};
        char name[32];
        cm_snprintf(name, sizeof name, "Ctask%c-%ld.txt", kLetter[i], static_cast<long>(number));
        path_[i][0] = '\0';
        if (!cm_build_path(ctx_, ctx_->tmp_dir, name, path_[i], sizeof path_[i], nullptr)) return false;
        const int32_t access = i == 0 ? CM_O_RDONLY : CM_O_WRONLY;
        const int32_t flags = access | CM_O_CREAT | CM_O_EXCL | platform::kOpenNoFollow | platform::kOpenOwnerOnly;
        made_[i] = os.file_open(path_[i], flags, &descriptor_[i]) == 0;
        return made_[i] && (i < 2 || os.file_status(descriptor_[i], &error_file_) == 0);
    }

    void close(int i) {
        if (descriptor_[i] >= 0) os.file_close(descriptor_[i]);
        descriptor_[i] = -1;
    }

    void remove(int i) {
        close(i);
        if (made_[i]) os.path_remove(path_[i]);
        made_[i] = false;
    }

    cm_context *const ctx_;
    char path_[3][kMessageSize] = {};
    int32_t descriptor_[3] = {-1, -1, -1};
    bool made_[3] = {};
    platform::FileStatus error_file_ = {};  // as it was made
};

// Waits for the end of a command; true when it ended by itself.  The end of the library ends it too, without a word.
bool wait_for_end(cm_context *ctx, platform::Process *process, const char *command) {
    const int64_t limit = int64_t{ctx->sched_task_timeout} * 1000;
    int32_t code;  // whatever it is, the command has run
    if (os.process_wait(process, limit > INT32_MAX ? INT32_MAX : static_cast<int32_t>(limit), &code)) return true;
    os.process_kill(process);
    os.process_wait(process, kEndWait, &code);
    if (!os.thread_asked()) report(ctx, CM_ERROR, "CRON process timeout: %s", command);
    return false;
}

}  // namespace

}  // namespace cm::cron

using namespace cm;

CM_API int16_t CM_CALL cm__cron_usertask(cm_context *ctx, const char *name, cm_value argument) {
    const auto *command = reinterpret_cast<const char *>(argument);
    if (ctx == nullptr || command == nullptr) return 0;
    cron::StreamFiles files(ctx);
    if (!files.create()) return 0;
    platform::Process *process = nullptr;
    const platform::Error error = platform::os.process_start(command, ctx->root_dir, files.descriptors(), &process);
    if (error != 0) {
        report(ctx, CM_ERROR, "CRON failed (CreateProcess): %s [%ld]", command, static_cast<long>(error));
        return 0;
    }
    files.close_all();
    const bool ended = cron::wait_for_end(ctx, process, command);
    platform::os.process_release(process);
    files.log_errors(command);
    return ended ? 1 : 0;
}
