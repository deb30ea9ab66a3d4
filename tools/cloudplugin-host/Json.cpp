#include "Json.h"

#include <cmath>
#include <cstdio>

namespace qvhost {

Json Json::Object(std::initializer_list<Member> members) {
    Json json;
    json.kind_ = Kind::Object;
    json.members_.assign(members.begin(), members.end());
    return json;
}

Json Json::Array() {
    Json json;
    json.kind_ = Kind::Array;
    return json;
}

Json& Json::Add(std::string name, Json value) {
    members_.emplace_back(std::move(name), std::move(value));
    return *this;
}

Json& Json::Push(Json value) {
    items_.push_back(std::move(value));
    return *this;
}

std::string Json::Text() const {
    std::string out;
    AppendTo(out);
    return out;
}

std::string JsonQuoted(const std::string& text) {
    std::string out = "\"";
    for (unsigned char c : text) {
        switch (c) {
        case '"': out += "\\\""; break;
        case '\\': out += "\\\\"; break;
        case '\n': out += "\\n"; break;
        case '\r': out += "\\r"; break;
        case '\t': out += "\\t"; break;
        default:
            if (c < 0x20) {
                char escaped[8];
                std::snprintf(escaped, sizeof escaped, "\\u%04x", c);
                out += escaped;
            } else {
                out.push_back(static_cast<char>(c));
            }
        }
    }
    out.push_back('"');
    return out;
}

void Json::AppendTo(std::string& out) const {
    switch (kind_) {
    case Kind::Null: out += "null"; break;
    case Kind::Bool: out += integer_ ? "true" : "false"; break;
    case Kind::Integer: out += std::to_string(integer_); break;
    case Kind::Real: {
        if (!std::isfinite(real_)) {
            out += "null";  // JSON has no infinities
            break;
        }
        char number[32];
        std::snprintf(number, sizeof number, "%.3f", real_);
        out += number;
        break;
    }
    case Kind::String: out += JsonQuoted(text_); break;
    case Kind::Array: {
        out.push_back('[');
        for (size_t i = 0; i < items_.size(); ++i) {
            if (i) out.push_back(',');
            items_[i].AppendTo(out);
        }
        out.push_back(']');
        break;
    }
    case Kind::Object: {
        out.push_back('{');
        for (size_t i = 0; i < members_.size(); ++i) {
            if (i) out.push_back(',');
            out += JsonQuoted(members_[i].first);
            out.push_back(':');
            members_[i].second.AppendTo(out);
        }
        out.push_back('}');
        break;
    }
    }
}

}  // namespace qvhost
