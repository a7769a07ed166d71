#ifndef MESSAGES_KYJSON_H
#define MESSAGES_KYJSON_H

#include <jansson.h>

#include <cstdlib>
#include <memory>
#include <string>

/// Owners for what jansson hands out. Internal to the library.
namespace ky_json {

struct Release {
    void operator()(json_t* value) const { json_decref(value); }
};

/// Holds one reference to a JSON value.
using Ref = std::unique_ptr<json_t, Release>;

struct FreeText {
    void operator()(char* text) const { std::free(text); }
};

/// Holds a serialised document; null if it could not be serialised.
using Text = std::unique_ptr<char, FreeText>;

inline Text Dump(const json_t* document, size_t flags) {
    return Text(json_dumps(document, flags));
}

/// The text, or the empty string if there is none.
inline const char* OrEmpty(const Text& text) {
    return text ? text.get() : "";
}

/// Sets a member of an object to a new value, of which it takes the reference. A value that jansson refused
/// to make, a text that is not UTF-8 say, is null here, and the member is left out.
inline void Set(const Ref& object, const char* key, json_t* value) {
    json_object_set_new(object.get(), key, value);
}

}  // namespace ky_json

#endif
