#include <string.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <random>

#include "support/support.h"

namespace cm::test {

namespace fs = std::filesystem;

namespace {

fs::path native(const std::string &text) {
    return fs::path(std::u8string(text.begin(), text.end()));
}

std::string portable(const fs::path &path) {
    const std::u8string text = path.generic_u8string();
    return {text.begin(), text.end()};
}

std::string contents(const std::string &path) {
    std::ifstream in(native(path), std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

}  // namespace

TempFolder::TempFolder() {
    std::random_device random;
    std::error_code ignored;
    for (;;) {
        const fs::path made = fs::temp_directory_path() / ("cm_test_" + std::to_string(random()));
        if (!fs::create_directory(made, ignored)) continue;
        path_ = portable(made);
        return;
    }
}

TempFolder::~TempFolder() {
    std::error_code ignored;
    fs::remove_all(native(path_), ignored);
}

std::string TempFolder::path(std::string_view name) const {
    return name.empty() ? path_ : path_ + "/" + std::string(name);
}

std::string TempFolder::absolute(std::string_view name) const {
    const std::string whole = path(name);
    return whole.size() > 1 && whole[0] == '/' && whole[1] != '/' ? "/" + whole : whole;
}

std::string TempFolder::write(std::string_view name, std::string_view bytes) const {
    const std::string whole = path(name);
    std::error_code ignored;
    fs::create_directories(native(whole).parent_path(), ignored);
    std::ofstream out(native(whole), std::ios::binary | std::ios::trunc);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    return whole;
}

std::string TempFolder::read(std::string_view name) const {
    return contents(path(name));
}

bool TempFolder::exists(std::string_view name) const {
    std::error_code ignored;
    return fs::exists(fs::symlink_status(native(path(name)), ignored));
}

std::string TempFolder::make_folder(std::string_view name) const {
    std::error_code ignored;
    fs::create_directories(native(path(name)), ignored);
    return path(name);
}

void TempFolder::remove(std::string_view name) const {
    std::error_code ignored;
    fs::remove_all(native(path(name)), ignored);
}

std::vector<std::string> TempFolder::names(std::string_view folder) const {
    std::vector<std::string> out;
    std::error_code error;
    for (const auto &entry : fs::directory_iterator(native(path(folder)), error))
        out.push_back(portable(entry.path().filename()));
    std::sort(out.begin(), out.end());
    return out;
}

std::vector<std::string> lines_of(std::string_view text) {
    std::vector<std::string> out;
    while (!text.empty()) {
        const size_t end = std::min(text.find('\n'), text.size());
        std::string_view line = text.substr(0, end);
        if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
        out.emplace_back(line);
        text.remove_prefix(std::min(end + 1, text.size()));
    }
    return out;
}

std::vector<std::string> log_lines(const std::string &path) {
    std::vector<std::string> out = lines_of(contents(path));
    constexpr size_t kStamp = std::string_view("[2001-09-09 01:46:40] ").size();
    for (std::string &line : out)
        if (line.size() >= kStamp && line[0] == '[' && line.compare(kStamp - 2, 2, "] ") == 0) line.erase(0, kStamp);
    return out;
}

namespace {

bool has_file_modes() {
    const TempFolder folder;
    const std::string path = folder.write("own", "");
    platform::FileStatus status = {};
    return platform::os.path_set_mode(path.c_str(), 0600) == 0 &&
           platform::os.path_status(path.c_str(), true, &status) == 0 && (status.mode & 0777) == 0600;
}

bool has_symbolic_links() {
    const TempFolder folder;
    std::error_code error;
    fs::create_symlink(native(folder.write("target", "")), native(folder.path("link")), error);
    return !error;
}

bool has_ports_by_address() {
    using platform::os;
    constexpr unsigned char kHosts[][4] = {{127, 0, 0, 1}, {127, 0, 0, 2}};
    cm_socket sockets[] = {platform::kNoSocket, platform::kNoSocket};
    bool both = os.network_start() == 0;
    for (int32_t i = 0, port = 0; i < 2 && both; i++) {
        uint32_t host = 0;
        memcpy(&host, kHosts[i], sizeof host);
        both = os.socket_open(platform::SocketKind::kDatagram, &sockets[i]) == 0 &&
               os.socket_bind(sockets[i], host, port) == 0 && os.socket_local(sockets[i], &host, &port) == 0;
    }
    for (const cm_socket socket : sockets)
        if (socket != platform::kNoSocket) os.socket_close(socket);
    os.network_stop();
    return both;
}

}  // namespace

const char *missing(std::string_view feature) {
    if (feature == "file-modes" && !has_file_modes())
        return "owner and others have the same permissions on this system";
    if (feature == "symbolic-links" && !has_symbolic_links()) return "this system or account makes no symbolic links";
    if (feature == "full-device" && !fs::exists("/dev/full")) return "this system has no device that is always full";
    if (feature == "ports-by-address" && !has_ports_by_address())
        return "a port that is taken on one address of this host is taken on all";
    return nullptr;
}

std::string child_program() {
    return CM_TEST_CHILD;
}

}  // namespace cm::test
