// Owning handles for the GLib, GObject and GEGL objects the plug-in holds:
// each releases its object with the library's own function.
#pragma once

#include <glib-object.h>

#include <memory>
#include <string>

namespace Curvana::Gimp {

struct GObjectUnref {
    void operator()(gpointer object) const {
        if (object)
            g_object_unref(object);
    }
};
// Any GObject (GeglBuffer, GimpMetadata): one reference, dropped at the end.
template <class T>
using GObjectPtr = std::unique_ptr<T, GObjectUnref>;

struct GFree {
    void operator()(gpointer memory) const { g_free(memory); }
};
using GCharPtr = std::unique_ptr<gchar, GFree>;

struct GBytesUnref {
    void operator()(GBytes* bytes) const {
        if (bytes)
            g_bytes_unref(bytes);
    }
};
using GBytesPtr = std::unique_ptr<GBytes, GBytesUnref>;

// A GError out-parameter that frees what it receives.
class GErrorHolder {
public:
    GErrorHolder() = default;
    ~GErrorHolder() { clear(); }
    GErrorHolder(const GErrorHolder&) = delete;
    GErrorHolder& operator=(const GErrorHolder&) = delete;

    GError** out() {
        clear();
        return &error_;
    }
    explicit operator bool() const { return error_ != nullptr; }
    std::string message() const { return error_ && error_->message ? error_->message : ""; }

private:
    void clear() {
        if (error_)
            g_error_free(error_);
        error_ = nullptr;
    }
    GError* error_ = nullptr;
};

// A string that GLib allocated, copied into a std::string and freed.
inline std::string takeString(gchar* text) {
    const GCharPtr owned(text);
    return owned ? std::string(owned.get()) : std::string();
}

}  // namespace Curvana::Gimp
