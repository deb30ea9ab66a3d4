// A small JSON value for the tool's machine-readable output (--json).
// Members keep the order they were added in, so the output reads the same
// way every time.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <string>
#include <utility>
#include <vector>

namespace qvhost {

class Json {
public:
    enum class Kind { Null, Bool, Integer, Real, String, Array, Object };
    using Member = std::pair<std::string, Json>;

    Json() = default;
    Json(bool value) : kind_(Kind::Bool), integer_(value ? 1 : 0) {}
    Json(int value) : kind_(Kind::Integer), integer_(value) {}
    Json(int64_t value) : kind_(Kind::Integer), integer_(value) {}
    Json(uint64_t value) : kind_(Kind::Integer), integer_(static_cast<int64_t>(value)) {}
    Json(uint32_t value) : kind_(Kind::Integer), integer_(value) {}
    Json(double value) : kind_(Kind::Real), real_(value) {}
    Json(const char* text) : kind_(Kind::String), text_(text) {}
    Json(std::string text) : kind_(Kind::String), text_(std::move(text)) {}

    static Json Object(std::initializer_list<Member> members = {});
    static Json Array();

    // Adds a member to an object, or an element to an array; returns *this.
    Json& Add(std::string name, Json value);
    Json& Push(Json value);

    // Compact text: no blanks, UTF-8 passed through, control characters
    // escaped.
    std::string Text() const;

private:
    void AppendTo(std::string& out) const;

    Kind kind_ = Kind::Null;
    int64_t integer_ = 0;
    double real_ = 0;
    std::string text_;
    std::vector<Json> items_;
    std::vector<Member> members_;
};

// A JSON string literal of the text (with its quotes).
std::string JsonQuoted(const std::string& text);

}  // namespace qvhost
