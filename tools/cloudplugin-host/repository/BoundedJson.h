// JSON records from storage (key objects, config, snapshots, locks): parsed
// only after their size was bounded, nested no deeper than a few levels
// (the parser recurses), and every member checked for its type. Anything
// else is Damaged, naming the record.
#pragma once

#include <cstdint>
#include <string>

#include "util/Json.h"
#include "repository/Binary.h"

namespace qvhost::repo {

inline Json ParseBoundedJson(const std::string& text, const std::string& what) {
    constexpr int kMaximumDepth = 8;
    Json json;
    try {
        json = Json::parse(text, [&](int depth, Json::parse_event_t, Json&) {
            if (depth > kMaximumDepth) throw std::out_of_range("nested too deeply");
            return true;
        });
    } catch (const std::exception& failure) {
        Damaged(what + " is damaged: not JSON (" + failure.what() + ")");
    }
    if (!json.is_object()) Damaged(what + " is damaged: not a JSON object");
    return json;
}

inline const Json& Member(const Json& json, const char* name, const std::string& what) {
    const auto found = json.find(name);
    if (found == json.end()) Damaged(what + " is damaged: it has no " + name);
    return *found;
}

inline uint64_t NumberMember(const Json& json, const char* name, const std::string& what) {
    const Json& member = Member(json, name, what);
    if (!member.is_number_unsigned()) Damaged(what + " is damaged: " + name + " is not a number");
    return member.get<uint64_t>();
}

inline int64_t SignedMember(const Json& json, const char* name, const std::string& what) {
    const Json& member = Member(json, name, what);
    if (!member.is_number_integer()) Damaged(what + " is damaged: " + name + " is not a number");
    return member.get<int64_t>();
}

inline std::string StringMember(const Json& json, const char* name, const std::string& what) {
    const Json& member = Member(json, name, what);
    if (!member.is_string()) Damaged(what + " is damaged: " + name + " is not text");
    return member.get<std::string>();
}

inline bool BoolMember(const Json& json, const char* name, const std::string& what) {
    const Json& member = Member(json, name, what);
    if (!member.is_boolean()) Damaged(what + " is damaged: " + name + " is not true or false");
    return member.get<bool>();
}

inline const Json& ArrayMember(const Json& json, const char* name, const std::string& what) {
    const Json& member = Member(json, name, what);
    if (!member.is_array()) Damaged(what + " is damaged: " + name + " is not a list");
    return member;
}

}  // namespace qvhost::repo
