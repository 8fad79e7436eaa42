// The table of this side.
#include "entries.h"

namespace cm::platform {

namespace {

constexpr Table system_table() {
    Table table{};
    table.allocate = win32::allocate;
    table.allocate_zeroed = win32::allocate_zeroed;
    table.release = win32::release;
    table.environment = win32::environment;
    table.working_directory = win32::working_directory;
    table.write_standard_error = win32::write_standard_error;
    table.random_bytes = win32::random_bytes;
    table.handle_abort = win32::handle_abort;
    table.exit_at_once = win32::exit_at_once;
    table.standard_handles_open = win32::standard_handles_open;
    table.wall_clock = win32::wall_clock;
    table.monotonic_ms = win32::monotonic_ms;
    table.local_calendar = win32::local_calendar;
    table.zone_bias_seconds = win32::zone_bias_seconds;
    table.set_wall_clock = win32::set_wall_clock;
    table.sleep = win32::sleep;
    table.file_open = win32::file_open;
    table.file_close = win32::file_close;
    table.file_read = win32::file_read;
    table.file_write = win32::file_write;
    table.file_seek = win32::file_seek;
    table.file_resize = win32::file_resize;
    table.file_sync = win32::file_sync;
    table.file_status = win32::file_status;
    table.path_status = win32::path_status;
    table.path_access = win32::path_access;
    table.path_set_mode = win32::path_set_mode;
    table.path_rename = win32::path_rename;
    table.path_link = win32::path_link;
    table.path_remove = win32::path_remove;
    table.directory_create = win32::directory_create;
    table.directory_remove = win32::directory_remove;
    table.directory_sync = win32::directory_sync;
    table.directory_open = win32::directory_open;
    table.directory_next = win32::directory_next;
    table.directory_close = win32::directory_close;
    table.lock_create = win32::lock_create;
    table.lock_destroy = win32::lock_destroy;
    table.lock_acquire = win32::lock_acquire;
    table.lock_release = win32::lock_release;
    table.event_create = win32::event_create;
    table.event_destroy = win32::event_destroy;
    table.event_set = win32::event_set;
    table.event_wait = win32::event_wait;
    table.thread_start = win32::thread_start;
    table.thread_ask = win32::thread_ask;
    table.thread_join = win32::thread_join;
    table.thread_park = win32::thread_park;
    table.thread_release = win32::thread_release;
    table.thread_self = win32::thread_self;
    table.thread_asked = win32::thread_asked;
    table.thread_yield = win32::thread_yield;
    table.network_start = win32::network_start;
    table.network_stop = win32::network_stop;
    table.host_name = win32::host_name;
    table.host_by_name = win32::host_by_name;
    table.host_by_address = win32::host_by_address;
    table.socket_open = win32::socket_open;
    table.socket_close = win32::socket_close;
    table.socket_shutdown = win32::socket_shutdown;
    table.socket_bind = win32::socket_bind;
    table.socket_listen = win32::socket_listen;
    table.socket_accept = win32::socket_accept;
    table.socket_connect = win32::socket_connect;
    table.socket_connect_result = win32::socket_connect_result;
    table.socket_local = win32::socket_local;
    table.socket_peer = win32::socket_peer;
    table.socket_set_blocking = win32::socket_set_blocking;
    table.socket_option = win32::socket_option;
    table.socket_all_confirmed = win32::socket_all_confirmed;
    table.socket_raw_option = win32::socket_raw_option;
    table.socket_send = win32::socket_send;
    table.socket_send_file = win32::socket_send_file;
    table.socket_receive = win32::socket_receive;
    table.socket_send_to = win32::socket_send_to;
    table.socket_receive_from = win32::socket_receive_from;
    table.socket_wait = win32::socket_wait;
    table.wake_create = win32::wake_create;
    table.wake_set = win32::wake_set;
    table.wake_clear = win32::wake_clear;
    table.wake_destroy = win32::wake_destroy;
    table.library_open = win32::library_open;
    table.library_symbol = win32::library_symbol;
    table.library_close = win32::library_close;
    table.process_start = win32::process_start;
    table.process_wait = win32::process_wait;
    table.process_kill = win32::process_kill;
    table.process_id = win32::process_id;
    table.process_release = win32::process_release;
    return table;
}

}  // namespace

constinit const Table kSystem = system_table();
constinit Table os = system_table();

}  // namespace cm::platform
