#include "services/idl-topologyd/links_file.h"

#include <cerrno>
#include <cstdarg>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#define TOML_EXCEPTIONS 0
#define TOML_ENABLE_FORMATTERS 0
#include <toml++/impl/preprocessor.h>
// The parser answers with an error to what it assumes not to meet here, such as "[[ =": the assumption alone
// would be the end of a process with assertions, and is undefined behaviour without.
#undef TOML_ASSERT_ASSUME
#define TOML_ASSERT_ASSUME(expression) static_assert(true)
#include <toml++/toml.h>

#include "services/common/topology_messages.h"

namespace topologyd {

namespace {

using namespace tavu;

// Far more than links_max links need; whoever writes more has named the wrong file.
constexpr size_t file_size_max = size_t{256} * 1024;
constexpr size_t errors_max = 20;
constexpr const char* known_keys = "port, id, remote-port, remote-mpid, du-type, status and hunt-path";

struct reader {
    const char* path;
    links_file result;

    __attribute__((format(printf, 3, 4))) void complain(const toml::source_region& where, const char* format,
                                                        ...) {
        if (result.errors.size() >= errors_max)
            return;
        char words[384];
        va_list arguments;
        va_start(arguments, format);
        vsnprintf(words, sizeof words, format, arguments);
        va_end(arguments);
        // What is quoted from the file may be meant for a terminal.
        for (char* at = words; *at; at++)
            *at = *at < ' ' || *at > '~' ? '?' : *at;
        std::string line = path;
        if (where.begin.line != 0)
            line += ":" + std::to_string(where.begin.line);
        result.errors.push_back(line + ": " + words);
    }
};

bool is_printable(const std::string& value) {
    for (char octet : value) {
        if (octet <= ' ' || octet > '~')
            return false;
    }
    return !value.empty();
}

// The table of one link while its keys are read. Every complaint names the link, as far as it has a name.
class link_reader {
  public:
    link_reader(reader& file, const toml::table& table) : file_(file), table_(table) {
        const auto* port = table.get_as<std::string>("port");
        snprintf(name_, sizeof name_, "link '%.40s'", port ? port->get().c_str() : "without a port");
    }

    const char* name() const { return name_; }

    // Text without blanks that fits its field; `key` is needed unless it is given as optional.
    template<size_t N>
    void read_name(const char* key, text<N>& field, bool needed) {
        const std::string* value = read<std::string>(key, "text in quotes", needed);
        if (!value)
            return;
        if (!is_printable(*value))
            file_.complain(at(key), "%s: %s must be printable ASCII without blanks, and not empty", name_,
                           key);
        else if (value->size() >= N)
            file_.complain(at(key), "%s: %s is %zu characters long; shorten it to at most %zu", name_, key,
                           value->size(), N - 1);
        else
            field.assign(value->c_str());
    }

    void read_number(const char* key, uint32_t& field, int64_t maximum) {
        const int64_t* value = read<int64_t>(key, "a number", true);
        if (!value)
            return;
        if (*value < 0 || *value > maximum)
            file_.complain(at(key), "%s: %s is %lld; it must be from 0 to %lld", name_, key,
                           static_cast<long long>(*value), static_cast<long long>(maximum));
        else
            field = static_cast<uint32_t>(*value);
    }

    void read_word(const char* key, uint32_t& field, bool (*from_word)(const char*, uint32_t&),
                   const char* words) {
        const std::string* value = read<std::string>(key, "text in quotes", false);
        // A text may hold a NUL, behind which the word's end would go unseen.
        if (value && (strlen(value->c_str()) != value->size() || !from_word(value->c_str(), field)))
            file_.complain(at(key), "%s: %s is \"%.40s\"; it must be one of %s", name_, key, value->c_str(),
                           words);
    }

    void refuse_unknown_keys() {
        for (const auto& [key, value] : table_) {
            if (!is_known(key.str()))
                file_.complain(key.source(), "%s: unknown key '%.40s'; the keys of a link are %s", name_,
                               std::string(key.str()).c_str(), known_keys);
        }
    }

  private:
    static bool is_known(std::string_view key) {
        for (const char* known :
             {"port", "id", "remote-port", "remote-mpid", "du-type", "status", "hunt-path"}) {
            if (key == known)
                return true;
        }
        return false;
    }

    toml::source_region at(const char* key) const {
        const toml::node* node = table_.get(key);
        return node ? node->source() : table_.source();
    }

    template<class T>
    const T* read(const char* key, const char* kind, bool needed) {
        const toml::node* node = table_.get(key);
        if (!node) {
            if (needed)
                file_.complain(table_.source(), "%s: key '%s' is missing; add %s = (%s)", name_, key, key,
                               kind);
            return nullptr;
        }
        const toml::value<T>* value = node->as<T>();
        if (!value) {
            file_.complain(node->source(), "%s: %s must be %s", name_, key, kind);
            return nullptr;
        }
        return &value->get();
    }

    reader& file_;
    const toml::table& table_;
    char name_[64];
};

void read_link(reader& file, const toml::table& table) {
    link_attributes link{};
    link.du_type = OXMSI_DU_TYPE_3;
    link.status = OXMSI_LTM_LINK_STATUS_UP;
    link_reader keys(file, table);
    keys.refuse_unknown_keys();
    keys.read_name("port", link.port, true);
    keys.read_number("id", link.id, UINT32_MAX);
    keys.read_name("remote-port", link.remote_port, true);
    keys.read_number("remote-mpid", link.remote_mpid, INT32_MAX);
    keys.read_word("du-type", link.du_type, services::du_type_from_word, "type-2 or type-3");
    keys.read_word("status", link.status, services::link_status_from_word, services::link_status_words());
    keys.read_name("hunt-path", link.hunt_path, link.du_type == OXMSI_DU_TYPE_3);

    for (const link_attributes& earlier : file.result.links) {
        if (earlier.port == link.port)
            file.complain(table.source(),
                          "%s: the port has a link already; a port carries one, remove either", keys.name());
    }
    if (file.result.links.size() == links_max)
        file.complain(table.source(), "%s: more than %zu links; remove some", keys.name(), links_max);
    else
        file.result.links.push_back(link);
}

void read_document(reader& file, const toml::table& document) {
    for (const auto& [key, value] : document) {
        if (key != "link")
            file.complain(key.source(), "unknown key '%.40s'; each link begins with a line [[link]]",
                          std::string(key.str()).c_str());
    }
    const toml::node* links = document.get("link");
    if (!links) {
        // An empty file is one that somebody is about to write, more often than a wish for no links.
        file.complain({}, "no link is defined; write link = [] if that is meant");
        return;
    }
    if (!links->is_array()) {
        file.complain(links->source(), "'link' must be a list; begin each link with a line [[link]]");
        return;
    }
    for (const toml::node& link : *links->as_array()) {
        if (link.is_table())
            read_link(file, *link.as_table());
        else
            file.complain(link.source(), "every link must be a table; begin each with a line [[link]]");
    }
}

links_file unreadable(const char* path, const char* why, const char* remedy) {
    links_file result;
    result.errors.push_back(std::string(path) + ": cannot be read: " + why + "; " + remedy);
    return result;
}

// The whole file, or the reason why not.
links_file read_from(int descriptor, const char* path) {
    struct stat status;
    if (fstat(descriptor, &status) < 0)
        return unreadable(path, strerror(errno), "check the file");
    if (!S_ISREG(status.st_mode))
        return unreadable(path, "it is no regular file", "name the links file with --links");
    std::string content(file_size_max + 1, '\0');
    size_t length = 0;
    for (;;) {
        ssize_t got = read(descriptor, content.data() + length, content.size() - length);
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0)
            return unreadable(path, strerror(errno), "check the file");
        if (got == 0)
            break;
        length += static_cast<size_t>(got);
    }
    if (length > file_size_max)
        return unreadable(path, "it is larger than 256 KiB", "name the links file with --links");
    return parse_links({content.data(), length}, path);
}

} // namespace

links_file parse_links(std::string_view content, const char* path) {
    reader file{path, {}};
    toml::parse_result parsed = toml::parse(content);
    if (!parsed)
        file.complain(parsed.error().source(), "not valid TOML: %.200s",
                      std::string(parsed.error().description()).c_str());
    else
        read_document(file, parsed.table());
    if (!file.result.is_good())
        file.result.links.clear();
    return file.result;
}

links_file read_links_file(const char* path) {
    // A FIFO under this name must not stop us.
    int descriptor = open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (descriptor < 0)
        return unreadable(path, strerror(errno),
                          errno == ENOENT ? "create it, or name another with --links"
                                          : "make it readable for this user");
    links_file result = read_from(descriptor, path);
    close(descriptor);
    return result;
}

} // namespace topologyd
