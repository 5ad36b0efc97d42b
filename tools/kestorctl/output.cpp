#include "output.h"

#include <cstdio>

void print(const Json& value) {
    puts(value.dump(-1, ' ', false, Json::error_handler_t::replace).c_str());
}

std::string text(const Json& object, const char* member) {
    const auto found = object.find(member);
    if (found == object.end() || found->is_null()) {
        return "-";
    }
    if (found->is_string()) {
        const auto value = found->get<std::string>();
        return value.empty() ? "-" : value;
    }
    return found->dump(-1, ' ', false, Json::error_handler_t::replace);
}

std::string timeText(const Json& object, const char* member) {
    std::string value = text(object, member);
    if (value.size() > 19) {
        value.resize(19);
        value[10] = ' ';
    }
    return value;
}
