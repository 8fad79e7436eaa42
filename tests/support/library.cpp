#include "support/support.h"

namespace cm::test {

Library::Library(const char *common, const std::function<void(TempFolder &)> &prepare)
    : environment_({{"TVHOME", folder_.path()}, {"TEMP", "tmp"}, {"TMP", "tmp"}}),
      log_folder_(common != nullptr ? "log" : "tmp") {
    if (common != nullptr)
        folder_.write("config/config.ini", std::string("[common]\nFlush Logs = TRUE\n") + common + "\n");
    if (prepare) prepare(folder_);
    notices_ = captured_standard_error([&] {
        int32_t already = 0;
        if (cm_ctx_init(&ctx_, "config", "server.log", 1, &already) != 1) ctx_ = nullptr;
    });
}

Library::~Library() {
    stop();
}

void Library::stop() {
    if (ctx_ != nullptr) cm_ctx_exit(ctx_);
    ctx_ = nullptr;
}

std::vector<std::string> Library::log() const {
    return log_lines(folder_.path(log_folder_ + "/server.log"));
}

bool Library::logged(std::string_view line) const {
    for (const std::string &have : log())
        if (have == line) return true;
    return false;
}

bool Library::logged_text(std::string_view part) const {
    for (const std::string &have : log())
        if (have.find(part) != std::string::npos) return true;
    return false;
}

}  // namespace cm::test
