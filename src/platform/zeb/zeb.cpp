// The trace service on Linux: text lines on stderr for the journal, groups chosen by ZEB_TRACE, and with
// ZEB_STAMP=yes the monotonic time before each, for consoles that keep none. Nothing waits for the reader of
// traces, but the end of a process for a moment: when a pipe is full, errors are kept and other lines
// counted. A place in the code writes a bounded number of lines a minute in the default groups.
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
#include "platform/zeb/harmless.h"
#include "platform/zeb/repetition.h"
#include "platform/zeb/zeb_sink.h"
#include "platform/zeb_names.h"

namespace {

constexpr uint32_t bit(uint32_t group) {
    return 1u << group;
}

constexpr uint32_t default_mask = bit(ZEB_GROUP_ERROR) | bit(ZEB_GROUP_INFO) | bit(ZEB_GROUP_STATE_CHANGE);
// Others are for debugging, and written in full.
constexpr uint32_t bounded_groups = default_mask;

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

// --- Lines

struct line {
    char text[text_size + 256];
    size_t size = 0;
};

// A record stays one line, even if a peer put a line feed into a text that is shown.
void replace_control_characters(char* text, size_t size) {
    for (size_t at = 0; at < size; at++) {
        if (static_cast<unsigned char>(text[at]) < ' ' || text[at] == '\x7f')
            text[at] = '?';
    }
}

void format_line(const zeb::record& record, line& made) {
    const group_row& row = row_of(record.group);
    char stamp[32] = "";
    if (stamped) {
        timespec now;
        clock_gettime(CLOCK_MONOTONIC, &now);
        snprintf(stamp, sizeof stamp, "%lld.%06ld ", static_cast<long long>(now.tv_sec), now.tv_nsec / 1000);
    }
    int length =
        snprintf(made.text, sizeof made.text, "<%d>%s%s%s%s %s:%d %s\n", row.journal_priority, stamp,
                 thread_name, thread_name[0] ? ": " : "", row.name, record.file, record.line, record.text);
    made.size = std::min(static_cast<size_t>(std::max(length, 1)), sizeof made.text - 1);
    replace_control_characters(made.text, made.size - 1);
    made.text[made.size - 1] = '\n';
}

// --- Writing, without waiting for the reader

// The last errors that met a full pipe are kept; other lines are counted.
constexpr size_t kept_max = 4;
constexpr int patience_at_the_end_ms = 2'000;

struct {
    unsigned long lost = 0;
    line kept[kept_max];
    size_t kept_first = 0;
    size_t kept_count = 0;
} unread;

// A terminal drains by itself.
bool takes_a_line(int patience_ms) {
    pollfd out = {.fd = STDERR_FILENO, .events = POLLOUT, .revents = 0};
    if (poll(&out, 1, patience_ms) > 0)
        return out.revents == POLLOUT;
    return isatty(STDERR_FILENO);
}

// One write for each, so that the lines of several processes do not mix.
bool write_line(const line& written, int patience_ms) {
    return takes_a_line(patience_ms) &&
           write(STDERR_FILENO, written.text, written.size) == static_cast<ssize_t>(written.size);
}

void keep(const line& error) {
    if (unread.kept_count == kept_max) {
        unread.kept_first = (unread.kept_first + 1) % kept_max;
        unread.kept_count--;
        unread.lost++;
    }
    unread.kept[(unread.kept_first + unread.kept_count) % kept_max] = error;
    unread.kept_count++;
}

bool tell_how_many_were_lost(int patience_ms) {
    char text[80];
    snprintf(text, sizeof text, "ZEB: %lu lines were lost, since they were not read in time", unread.lost);
    line told;
    format_line({ZEB_GROUP_ERROR, short_fname(__FILE__), __LINE__, text}, told);
    return write_line(told, patience_ms);
}

// Whether nothing is left.
bool write_unread(int patience_ms) {
    if (unread.lost > 0 && !tell_how_many_were_lost(patience_ms))
        return false;
    unread.lost = 0;
    while (unread.kept_count > 0 && write_line(unread.kept[unread.kept_first], patience_ms)) {
        unread.kept_first = (unread.kept_first + 1) % kept_max;
        unread.kept_count--;
    }
    return unread.kept_count == 0;
}

void write_or_keep(const zeb::record& record) {
    line fresh;
    format_line(record, fresh);
    if (write_unread(0) && write_line(fresh, 0))
        return;
    if (record.group == ZEB_GROUP_ERROR)
        keep(fresh);
    else
        unread.lost++;
}

// --- Lines that repeat

uint64_t monotonic_ms() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000 + static_cast<uint64_t>(now.tv_nsec) / 1'000'000;
}

uint64_t (*now_ms)() = monotonic_ms;

void write_bounded(const zeb::record& record) {
    const uint64_t now = now_ms();
    if (zeb::minute_is_over(now))
        zeb::tell_repetitions(write_or_keep);
    const zeb::admission admitted = zeb::admit(record, now);
    if (admitted == zeb::admission::count)
        return;
    write_or_keep(record);
    if (admitted == zeb::admission::write_as_last)
        write_or_keep({record.group, record.file, record.line,
                       "ZEB: repeats too often, and is only counted until the minute is over"});
}

void write_to_stderr(const zeb::record& record) {
    if (record.group == ZEB_GROUP_ERROR && zeb::is_harmless(record.text)) {
        if (ZEB_IS_TRACED(ZEB_GROUP_TRACE))
            write_or_keep({ZEB_GROUP_TRACE, record.file, record.line, record.text});
        return;
    }
    if (bounded_groups & bit(record.group))
        write_bounded(record);
    else
        write_or_keep(record);
}

// The last errors tell why the process ended, so this waits for a moment.
void write_unread_at_the_end() {
    zeb::tell_repetitions(write_or_keep);
    (void)write_unread(patience_at_the_end_ms);
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

void set_clock(uint64_t (*new_now_ms)()) {
    now_ms = new_now_ms ? new_now_ms : monotonic_ms;
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
    (void)atexit(write_unread_at_the_end);
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
