#pragma once
#include <string>

namespace McLib
{
std::string typeNameFromPretty(const char* inPrettyFunction);

// The written-out name of T ("KsDeploy::Resource"), for contract texts of templates.
template <class T>
std::string typeName()
{
    return typeNameFromPretty(__PRETTY_FUNCTION__);
}
}
