// The trace service on Linux: text lines on stderr for the journal, groups chosen by ZEB_TRACE, and with
// ZEB_STAMP=yes the monotonic time before each, for consoles that keep none.
#include "platform/zeb.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <iterator>
#include <poll.h>
#include <string_view>
#include <unistd.h>
#include <utility>

#include "platform/words.h"
#include "platform/zeb/zeb_sink.h"
#include "platform/zeb_names.h"

namespace {

constexpr uint32_t bit(uint32_t group) {
    return 1u << group;
}

constexpr uint32_t default_mask = bit(ZEB_GROUP_ERROR) | bit(ZEB_GROUP_INFO) | bit(ZEB_GROUP_STATE_CHANGE);

struct group_row {
    uint32_t mask;
    const char* name;     // in ZEB_TRACE and in the line
    int journal_priority; // as in sd-daemon: 3 error, 5 notice, 6 information, 7 debug
};

constexpr group_row groups[] = {
    {bit(ZEB_GROUP_ERROR), "error", 3},
    {bit(ZEB_GROUP_ENTER), "enter", 7},
    {bit(ZEB_GROUP_RETURN), "return", 7},
    {bit(ZEB_GROUP_INFO), "info", 6},
    {bit(ZEB_GROUP_TRACE), "trace", 7},
    {bit(ZEB_GROUP_DETAIL), "detail", 7},
    {bit(ZEB_GROUP_STATE_CHANGE), "state-change", 5},
    {bit(ZEB_GROUP_RECEIVE_SIGNAL), "receive", 7},
    {bit(ZEB_GROUP_SEND_SIGNAL), "send", 7},
    {UINT32_MAX, "all", 7},
    {0, "none", 7},
};

const group_row& row_of(uint32_t group) {
    static constexpr group_row unknown = {0, "?", 7};
    const auto* row = std::find_if(std::begin(groups), std::end(groups),
                                   [=](const group_row& each) { return each.mask == bit(group); });
    return row == std::end(groups) ? unknown : *row;
}

constexpr size_t text_size = 1024;
__thread char text_buffer[text_size];
__thread char thread_name[32];
bool stamped = false;

// A line is lost when its reader is gone or has let a pipe or socket fill up: nothing waits for the reader
// of traces. A terminal drains by itself.
bool takes_a_line(int fd) {
    pollfd out = {.fd = fd, .events = POLLOUT, .revents = 0};
    if (poll(&out, 1, 0) > 0)
        return out.revents == POLLOUT;
    return isatty(fd);
}

// A record is one line, whatever a peer wrote into the text that is shown.
void replace_control_characters(char* line, size_t size) {
    for (size_t at = 0; at < size; at++) {
        if (static_cast<unsigned char>(line[at]) < ' ' || line[at] == '\x7f')
            line[at] = '?';
    }
}

// One write per record, so that the lines of several processes do not mix.
void write_to_stderr(const zeb::record& record) {
    const group_row& row = row_of(record.group);
    char stamp[32] = "";
    if (stamped) {
        timespec now;
        clock_gettime(CLOCK_MONOTONIC, &now);
        snprintf(stamp, sizeof stamp, "%lld.%06ld ", static_cast<long long>(now.tv_sec), now.tv_nsec / 1000);
    }
    char line[text_size + 256];
    int length =
        snprintf(line, sizeof line, "<%d>%s%s%s%s %s:%d %s\n", row.journal_priority, stamp, thread_name,
                 thread_name[0] ? ": " : "", row.name, record.file, record.line, record.text);
    if (length < 0)
        return;
    size_t size = static_cast<size_t>(length);
    if (size >= sizeof line)
        size = sizeof line - 1;
    replace_control_characters(line, size - 1);
    line[size - 1] = '\n';
    if (!takes_a_line(STDERR_FILENO))
        return;
    [[maybe_unused]] ssize_t written = write(STDERR_FILENO, line, size);
}

zeb::sink current_sink = write_to_stderr;

void emit(uint32_t group, const char* file, int line, const char* text) {
    int saved_errno = errno;
    current_sink({group, file, line, text ? text : ""});
    errno = saved_errno;
}

} // namespace

__thread zeb_proc_info procInfo = {{0, 0, 0}, default_mask};

namespace zeb {

void set_sink(sink new_sink) {
    current_sink = new_sink ? new_sink : write_to_stderr;
}

bool read_mask(std::string_view text, uint32_t& mask, char* wrong, size_t size) {
    bool all_known = true;
    mask = 0;
    for (std::string_view word = platform::next_word(text); !word.empty(); word = platform::next_word(text)) {
        const auto* row = std::find_if(std::begin(groups), std::end(groups),
                                       [=](const group_row& each) { return each.name == word; });
        if (row != std::end(groups))
            mask |= row->mask;
        else if (std::exchange(all_known, false))
            platform::describe_unknown(
                word, std::size(groups), [](size_t index) { return groups[index].name; }, wrong, size);
    }
    return all_known;
}

} // namespace zeb

bool zeb_check_trace_groups(const char* value, char* wrong, size_t size) {
    uint32_t mask = 0;
    return zeb::read_mask(value, mask, wrong, size);
}

int zeb_init(void) {
    const char* chosen = getenv("ZEB_TRACE");
    char wrong[256];
    if (chosen && !zeb::read_mask(chosen, procInfo.trace_group_mask, wrong, sizeof wrong))
        fprintf(stderr, "ZEB_TRACE is '%.80s'; %s\n", chosen, wrong);
    const char* stamp = getenv("ZEB_STAMP");
    stamped = stamp && strcmp(stamp, "yes") == 0;
    return 0;
}

void zeb_register_thread_name(const char* name) {
    snprintf(thread_name, sizeof thread_name, "%s", name);
}

void lttngZebTrace(uint32_t group, const char* short_file_name, int line, const char* text,
                   const zeb_proc_info*) {
    emit(group, short_file_name, line, text);
}

void lttngZebSendSigTrace(const char* short_file_name, int line, uint32_t message_number,
                          oka_mailbox receiver, const char* text, const zeb_proc_info*) {
    char full[text_size + 64];
    snprintf(full, sizeof full, "0x%x to mailbox %u: %s", message_number, receiver, text);
    emit(ZEB_GROUP_SEND_SIGNAL, short_file_name, line, full);
}

void lttngZebRecSigTrace(const char* short_file_name, int line, const oka_message* message, const char* text,
                         const zeb_proc_info*) {
    char full[text_size + 96];
    snprintf(full, sizeof full, "0x%x of %u bytes from mailbox %u on mailbox %u: %s", message->number,
             oka_size(message), oka_sender(message), oka_receiver(message), text);
    emit(ZEB_GROUP_RECEIVE_SIGNAL, short_file_name, line, full);
}

const char* formatStr(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    int length = vsnprintf(text_buffer, sizeof text_buffer, format, arguments);
    va_end(arguments);
    if (length < 0)
        text_buffer[0] = '\0';
    return text_buffer;
}

const char* short_fname(const char* path) {
    const char* slash = strrchr(path, '/');
    return slash ? slash + 1 : path;
}
