// The functions that a platform side defines, one for each entry of the table in platform.h, which says what they do.
#pragma once

#include "platform/platform.h"

namespace cm::platform::system {

void *allocate(size_t bytes);
void *allocate_zeroed(size_t bytes);
void release(void *block);

const char *environment(const char *name);
bool working_directory(char *out, size_t size);
void write_standard_error(const char *text, size_t length);
bool random_bytes(void *out, size_t count);
void handle_abort(void (*handler)(int));
void exit_at_once(int32_t status);
bool standard_handles_open();

bool wall_clock(WallTime *out);
int64_t monotonic_ms();
bool local_calendar(int64_t seconds, cm_tm *out);
int32_t zone_bias_seconds();
Error set_wall_clock(const cm_tm *utc, int32_t milliseconds);
bool sleep(int32_t milliseconds);

Error file_open(const char *path, int32_t flags, int32_t *out_descriptor);
Error file_close(int32_t descriptor);
Error file_read(int32_t descriptor, void *buffer, size_t count, size_t *out_got);
Error file_write(int32_t descriptor, const void *data, size_t count, size_t *out_written);
Error file_seek(int32_t descriptor, int64_t offset, int32_t whence, int64_t *out_position);
Error file_resize(int32_t descriptor, int64_t size);
Error file_sync(int32_t descriptor);
Error file_status(int32_t descriptor, FileStatus *out);
Error path_status(const char *path, bool follow, FileStatus *out);
Error path_access(const char *path, int32_t mode);
Error path_set_mode(const char *path, uint32_t mode);
Error path_rename(const char *from, const char *to);
Error path_link(const char *from, const char *to);
Error path_remove(const char *path);
Error directory_create(const char *path);
Error directory_remove(const char *path);
Error directory_sync(const char *path);
Error directory_open(const char *path, void **out_search);
bool directory_next(void *search, char *out_name, size_t size);
void directory_close(void *search);

Lock *lock_create();
void lock_destroy(Lock *lock);
void lock_acquire(Lock *lock);
void lock_release(Lock *lock);
Event *event_create();
void event_destroy(Event *event);
void event_set(Event *event);
bool event_wait(Event *event, int32_t timeout_ms);

Error thread_start(ThreadEntry entry, void *argument, Thread **out_thread);
void thread_ask(Thread *thread);
bool thread_join(Thread *thread, int32_t timeout_ms);
bool thread_park(Thread *thread);
void thread_release(Thread *thread);
Thread *thread_self();
bool thread_asked();
void thread_yield();

Error network_start();
Error network_stop();
Error host_name(char *out, size_t size);
Error host_by_name(const char *name, uint32_t out_addresses[4], int32_t *out_count);
Error host_by_address(uint32_t address, char *out_name, size_t size);
Error socket_open(SocketKind kind, cm_socket *out_socket);
Error socket_close(cm_socket socket);
Error socket_shutdown(cm_socket socket);
Error socket_bind(cm_socket socket, uint32_t address, int32_t port);
Error socket_listen(cm_socket socket, int32_t backlog);
Error socket_accept(cm_socket listener, cm_socket *out_socket, uint32_t *out_address, int32_t *out_port);
Error socket_connect(cm_socket socket, uint32_t address, int32_t port);
Error socket_connect_result(cm_socket socket);
Error socket_local(cm_socket socket, uint32_t *out_address, int32_t *out_port);
Error socket_peer(cm_socket socket, uint32_t *out_address, int32_t *out_port);
Error socket_set_blocking(cm_socket socket, bool blocking);
Error socket_option(cm_socket socket, SocketOption option, int32_t value);
bool socket_all_confirmed(cm_socket socket);
Error socket_raw_option(cm_socket socket, int32_t level, int32_t option, const void *value, int32_t length);
Error socket_send(cm_socket socket, const Slice *slices, int32_t count, bool more_follows, size_t *out_count);
Error socket_send_file(cm_socket socket, int32_t descriptor, int64_t offset, size_t count, size_t *out_count);
Error socket_receive(cm_socket socket, void *buffer, size_t size, bool only_what_is_there, size_t *out_count);
Error socket_send_to(cm_socket socket, uint32_t address, int32_t port, const void *data, size_t length);
Error socket_receive_from(cm_socket socket, void *buffer, size_t size, bool only_what_is_there, size_t *out_count,
                          uint32_t *out_address, int32_t *out_port);
Error socket_wait(WaitItem *items, int32_t count, int32_t timeout_ms, int32_t *out_ready);
Error wake_create(Wake *out_wake);
void wake_set(const Wake *wake);
void wake_clear(const Wake *wake);
void wake_destroy(Wake *wake);

void *library_open(const char *file);
void *library_symbol(void *library, const char *name);
void library_close(void *library);

Error process_start(const char *command, const char *directory, const int32_t standard[3], Process **out_process);
bool process_wait(Process *process, int32_t timeout_ms, int32_t *out_exit_code);
void process_kill(Process *process);
int32_t process_id(Process *process);
void process_release(Process *process);
bool process_running(int32_t id);
Error process_end(int32_t id);
bool process_await(Process *process, int32_t timeout_ms);
bool object_wait(intptr_t object, int32_t timeout_ms);

bool service_installed(const char *name);
bool service_running(const char *name);
Error hardware_address(uint32_t address, uint8_t out[6]);
Error line_dial(const char *entry, const char *user, const char *password, Line **out_line);
bool line_connected(Line *line);
void line_hang_up(Line *line);
void line_error_text(Error error, char *out, size_t size);

constexpr Table kTable = {
    .allocate = allocate,
    .allocate_zeroed = allocate_zeroed,
    .release = release,
    .environment = environment,
    .working_directory = working_directory,
    .write_standard_error = write_standard_error,
    .random_bytes = random_bytes,
    .handle_abort = handle_abort,
    .exit_at_once = exit_at_once,
    .standard_handles_open = standard_handles_open,
    .wall_clock = wall_clock,
    .monotonic_ms = monotonic_ms,
    .local_calendar = local_calendar,
    .zone_bias_seconds = zone_bias_seconds,
    .set_wall_clock = set_wall_clock,
    .sleep = sleep,
    .file_open = file_open,
    .file_close = file_close,
    .file_read = file_read,
    .file_write = file_write,
    .file_seek = file_seek,
    .file_resize = file_resize,
    .file_sync = file_sync,
    .file_status = file_status,
    .path_status = path_status,
    .path_access = path_access,
    .path_set_mode = path_set_mode,
    .path_rename = path_rename,
    .path_link = path_link,
    .path_remove = path_remove,
    .directory_create = directory_create,
    .directory_remove = directory_remove,
    .directory_sync = directory_sync,
    .directory_open = directory_open,
    .directory_next = directory_next,
    .directory_close = directory_close,
    .lock_create = lock_create,
    .lock_destroy = lock_destroy,
    .lock_acquire = lock_acquire,
    .lock_release = lock_release,
    .event_create = event_create,
    .event_destroy = event_destroy,
    .event_set = event_set,
    .event_wait = event_wait,
    .thread_start = thread_start,
    .thread_ask = thread_ask,
    .thread_join = thread_join,
    .thread_park = thread_park,
    .thread_release = thread_release,
    .thread_self = thread_self,
    .thread_asked = thread_asked,
    .thread_yield = thread_yield,
    .network_start = network_start,
    .network_stop = network_stop,
    .host_name = host_name,
    .host_by_name = host_by_name,
    .host_by_address = host_by_address,
    .socket_open = socket_open,
    .socket_close = socket_close,
    .socket_shutdown = socket_shutdown,
    .socket_bind = socket_bind,
    .socket_listen = socket_listen,
    .socket_accept = socket_accept,
    .socket_connect = socket_connect,
    .socket_connect_result = socket_connect_result,
    .socket_local = socket_local,
    .socket_peer = socket_peer,
    .socket_set_blocking = socket_set_blocking,
    .socket_option = socket_option,
    .socket_all_confirmed = socket_all_confirmed,
    .socket_raw_option = socket_raw_option,
    .socket_send = socket_send,
    .socket_send_file = socket_send_file,
    .socket_receive = socket_receive,
    .socket_send_to = socket_send_to,
    .socket_receive_from = socket_receive_from,
    .socket_wait = socket_wait,
    .wake_create = wake_create,
    .wake_set = wake_set,
    .wake_clear = wake_clear,
    .wake_destroy = wake_destroy,
    .library_open = library_open,
    .library_symbol = library_symbol,
    .library_close = library_close,
    .process_start = process_start,
    .process_wait = process_wait,
    .process_kill = process_kill,
    .process_id = process_id,
    .process_release = process_release,
    .process_running = process_running,
    .process_end = process_end,
    .process_await = process_await,
    .object_wait = object_wait,
    .service_installed = service_installed,
    .service_running = service_running,
    .hardware_address = hardware_address,
    .line_dial = line_dial,
    .line_connected = line_connected,
    .line_hang_up = line_hang_up,
    .line_error_text = line_error_text,
};

}  // namespace cm::platform::system
