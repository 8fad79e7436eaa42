#include "support/support.h"

namespace cm::test {

using platform::Error;
using platform::Table;

struct CallRecorder::State {
    std::string shorter(const std::string &path) const {
        return !cut.empty() && path.starts_with(cut) ? path.substr(cut.size()) : path;
    }
    Error add(const std::string &line, Error error) {
        lines.push_back(error == 0 ? line : line + " = " + std::to_string(error));
        return error;
    }
    // A call of one path or of two.
    template <auto kEntry>
    struct Noted : Underneath<kEntry> {
        Noted(State *state, const std::string &word)
            : Underneath<kEntry>([=, this](auto... paths) {
                  const std::lock_guard guard(state->mutex);
                  return state->add((word + ... + (" " + state->shorter(paths))), this->real(paths...));
              }) {}
    };

    const std::string cut;
    std::mutex mutex;  // held during the calls too, so that a line's place is that of its call
    std::vector<std::string> lines = {};
    std::map<int32_t, std::string> names = {};  // of descriptors

    const Underneath<&Table::file_open> open{[this](const char *path, int32_t flags, int32_t *out) {
        const std::lock_guard guard(mutex);
        const Error error = open.real(path, flags, out);
        if (error == 0) names[*out] = shorter(path);
        return add(((flags & CM_O_CREAT) != 0 ? "create " : "open ") + shorter(path), error);
    }};
    const Underneath<&Table::file_close> close{[this](int32_t descriptor) {
        const std::lock_guard guard(mutex);
        return add("close " + names[descriptor], close.real(descriptor));
    }};
    const Underneath<&Table::file_write> write{[this](int32_t descriptor, const void *data, size_t count, size_t *out) {
        const std::lock_guard guard(mutex);
        const Error error = write.real(descriptor, data, count, out);
        return add("write " + names[descriptor] + " " + std::to_string(*out), error);
    }};
    const Underneath<&Table::file_sync> sync{[this](int32_t descriptor) {
        const std::lock_guard guard(mutex);
        return add("sync " + names[descriptor], sync.real(descriptor));
    }};
    const Noted<&Table::path_rename> rename{this, "rename"};
    const Noted<&Table::path_link> link{this, "link"};
    const Noted<&Table::path_remove> remove{this, "remove"};
    const Noted<&Table::directory_create> make{this, "mkdir"};
    const Noted<&Table::directory_remove> unmake{this, "rmdir"};
    const Noted<&Table::directory_sync> sync_folder{this, "sync-folder"};
};

CallRecorder::CallRecorder(const std::string &strip) : state_(new State{strip, {}}) {}
CallRecorder::~CallRecorder() = default;

std::vector<std::string> CallRecorder::lines(std::string_view containing) const {
    const std::lock_guard guard(state_->mutex);
    std::vector<std::string> out;
    for (const std::string &line : state_->lines)
        if (line.find(containing) != std::string::npos) out.push_back(line);
    return out;
}

std::string CallRecorder::text() const {
    std::string out;
    for (const std::string &line : lines()) out += line + "\n";
    return out;
}

std::string captured_standard_error(const std::function<void()> &run) {
    const StandardErrorCapture capture;
    run();
    return capture.text();
}

}  // namespace cm::test
