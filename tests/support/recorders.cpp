#include <mutex>

#include "support/support.h"

namespace cm::test {

using platform::Error;
using platform::os;
using platform::Table;

// ---- CallRecorder ---------------------------------------------------------------------------------------------------

namespace {

Table below;
std::mutex calls_mutex;  // guards what follows
std::string cut;
std::vector<std::string> calls;
std::map<int32_t, std::string> names;  // of open descriptors

std::string shorter(std::string_view path) {
    return std::string(!cut.empty() && path.starts_with(cut) ? path.substr(cut.size()) : path);
}

Error note(std::string line, Error error) {
    if (error != 0) line += " = " + std::to_string(error);
    calls.push_back(std::move(line));
    return error;
}

// Takes the lock, so that a line's place is that of its call.
template <class Call>
Error noted(const std::string &line, Call call) {
    std::lock_guard guard(calls_mutex);
    return note(line, call());
}

// Calls of one path or of two.
template <auto Entry, class... Paths>
void record(const char *word) {
    static const char *const name = word;
    os.*Entry = [](Paths... paths) {
        std::string line = name;
        ((line += " " + shorter(paths)), ...);
        return noted(line, [&] { return (below.*Entry)(paths...); });
    };
}

Error file_open(const char *path, int32_t flags, int32_t *out) {
    return noted(((flags & CM_O_CREAT) != 0 ? "create " : "open ") + shorter(path), [&] {
        const Error error = below.file_open(path, flags, out);
        if (error == 0) names[*out] = shorter(path);
        return error;
    });
}

Error file_close(int32_t descriptor) {
    std::lock_guard guard(calls_mutex);
    const std::string line = "close " + names[descriptor];
    names.erase(descriptor);
    return note(line, below.file_close(descriptor));
}

Error file_write(int32_t descriptor, const void *data, size_t count, size_t *out) {
    std::lock_guard guard(calls_mutex);
    const Error error = below.file_write(descriptor, data, count, out);
    return note("write " + names[descriptor] + " " + std::to_string(*out), error);
}

Error file_sync(int32_t descriptor) {
    std::lock_guard guard(calls_mutex);
    return note("sync " + names[descriptor], below.file_sync(descriptor));
}

}  // namespace

CallRecorder::CallRecorder(const std::string &strip) : saved_(os) {
    below = os;
    cut = strip;
    calls.clear();
    names.clear();
    os.file_open = file_open;
    os.file_close = file_close;
    os.file_write = file_write;
    os.file_sync = file_sync;
    using Path = const char *;
    record<&Table::path_rename, Path, Path>("rename");
    record<&Table::path_link, Path, Path>("link");
    record<&Table::path_remove, Path>("remove");
    record<&Table::directory_create, Path>("mkdir");
    record<&Table::directory_remove, Path>("rmdir");
    record<&Table::directory_sync, Path>("sync-folder");
}

CallRecorder::~CallRecorder() {
    os = saved_;
}

std::vector<std::string> CallRecorder::lines(std::string_view containing) const {
    std::lock_guard guard(calls_mutex);
    std::vector<std::string> out;
    for (const std::string &line : calls)
        if (line.find(containing) != std::string::npos) out.push_back(line);
    return out;
}

std::string CallRecorder::text() const {
    std::string out;
    for (const std::string &line : lines()) out += line + "\n";
    return out;
}

// ---- StandardErrorCapture -------------------------------------------------------------------------------------------

namespace {

std::mutex errors_mutex;
std::string errors;

}  // namespace

StandardErrorCapture::StandardErrorCapture() : saved_(os) {
    errors.clear();
    os.write_standard_error = [](const char *text, size_t length) {
        std::lock_guard guard(errors_mutex);
        errors.append(text, length);
    };
}

// This entry alone: a start that was captured leaves the scheduler's thread behind, which reads others.
StandardErrorCapture::~StandardErrorCapture() {
    os.write_standard_error = saved_.write_standard_error;
}

std::string StandardErrorCapture::text() const {
    std::lock_guard guard(errors_mutex);
    return errors;
}

std::string captured_standard_error(const std::function<void()> &run) {
    StandardErrorCapture capture;
    run();
    return capture.text();
}

// ---- Environment ----------------------------------------------------------------------------------------------------

namespace {

const char *(*environment_below)(const char *);
std::map<std::string, std::string> variables;

}  // namespace

Environment::Environment(std::map<std::string, std::string> values) : saved_(os) {
    environment_below = os.environment;
    variables = std::move(values);
    os.environment = [](const char *name) -> const char * {
        const auto found = variables.find(name);
        if (found == variables.end()) return environment_below(name);
        return found->second.empty() ? nullptr : found->second.c_str();
    };
}

Environment::~Environment() {
    os.environment = saved_.environment;
}

}  // namespace cm::test
