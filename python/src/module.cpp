// The nkprotocol extension module: messages, telegrams and the protocol engine of libnkProtocol.
#include "bindings.h"

#include <cstring>

namespace nkpy
{
tBlob blobFrom(py::buffer const& data)
{
    py::buffer_info info = data.request();
    if (info.ndim > 1) throw py::value_error("bytes expected, got a buffer of " + std::to_string(info.ndim) + " dimensions");
    const py::ssize_t length = info.size * info.itemsize;
    if (length > 0xFFFFFFFFll) throw py::value_error("buffer too large for a 32-bit length: " + std::to_string(length));
    return tBlob(static_cast<unsigned char const*>(info.ptr), static_cast<unsigned int>(length));
}

py::bytes bytesOf(tBlob const& blob)
{
    return py::bytes(reinterpret_cast<char const*>(blob.getBuffer()), blob.size());
}

py::bytes bytesOf(tString const& text) { return py::bytes(text.data(), text.length()); }

tString textFrom(py::handle value, char const* what)
{
    if (py::isinstance<py::str>(value)) {
        std::string s = value.cast<std::string>();
        return tString(s.data(), static_cast<unsigned int>(s.size()));
    }
    if (py::isinstance<py::bytes>(value)) {
        std::string s = value.cast<std::string>();
        return tString(s.data(), static_cast<unsigned int>(s.size()));
    }
    throw py::type_error(std::string(what) + " must be str or bytes, not " +
                         std::string(py::str(py::type::of(value).attr("__name__"))));
}
}  // namespace nkpy

PYBIND11_MODULE(_nkprotocol, m)
{
    m.doc() = "Messages, telegrams and the protocol engine of libnkProtocol";
    nkpy::bindMessages(m);
    nkpy::bindTelegrams(m);
    nkpy::bindProtocol(m);
}
