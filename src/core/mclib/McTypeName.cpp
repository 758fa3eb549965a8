#include "McTypeName.h"

std::string McLib::typeNameFromPretty(const char* inPrettyFunction)
{
    // GCC and clang both write "[with T = X]" or "[T = X]" at the end.
    const std::string p = inPrettyFunction ? inPrettyFunction : "";
    size_t at = p.find("T = ");
    if (at == std::string::npos)
        return "T";
    at += 4;
    size_t end = p.find_first_of(";]", at);
    if (end == std::string::npos)
        end = p.size();
    return p.substr(at, end - at);
}
