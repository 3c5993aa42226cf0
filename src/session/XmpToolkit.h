#pragma once

namespace Project {

// The XMP toolkit that parses the photo's metadata packet (Exiv2's XMP
// parser). The session starts it before the camera metadata is read and stops
// it at the end of the invocation that started it.
namespace XmpToolkit {
// True when the toolkit is up.
bool Start();
void Stop() noexcept;
}  // namespace XmpToolkit

}  // namespace Project
