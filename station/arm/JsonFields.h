// Looks into JSON of others without expecting anything to be there.
#pragma once

#include <string>

#include <nlohmann/json.hpp>

/** Null when it is no object, or has no such field. */
inline nlohmann::json fieldOf(const nlohmann::json& object, const char* pKey)
{
    return object.is_object() && object.contains(pKey) ? object[pKey] : nlohmann::json();
}

/** Empty when there is no such text. */
inline std::string textOf(const nlohmann::json& object, const char* pKey)
{
    const nlohmann::json field = fieldOf(object, pKey);
    return field.is_string() ? field.get<std::string>() : "";
}

/** 0 when there is no such number. */
inline double numberOf(const nlohmann::json& object, const char* pKey)
{
    const nlohmann::json field = fieldOf(object, pKey);
    return field.is_number() ? field.get<double>() : 0;
}
