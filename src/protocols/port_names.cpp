#include "protocols/port_names.h"

#include <cstring>

namespace tavu {

const char* hardware_name_of(const char* idl_name) {
    for (const port_name_row& row : port_name_rows) {
        if (strncmp(idl_name, row.idl_name, 16) == 0)
            return row.hardware_name;
    }
    return nullptr;
}

const char* idl_name_of(const char* hardware_name) {
    for (const port_name_row& row : port_name_rows) {
        if (strcmp(hardware_name, row.hardware_name) == 0)
            return row.idl_name;
    }
    return nullptr;
}

std::string usual_port_names_text() {
    std::string text;
    for (const char* name : usual_port_names)
        text += std::string(text.empty() ? "" : " ") + name;
    return text;
}

std::string no_port_for_links() {
    std::string text = "none of the ports is one that carries a link; there are";
    for (const char* name : usual_port_names)
        text += std::string(" ") + hardware_name_of(name);
    return text;
}

} // namespace tavu
