// Shared pieces of the Python module: byte conversions and the binders of each family.
#ifndef NK_PYTHON_BINDINGS_H
#define NK_PYTHON_BINDINGS_H

#include <pybind11/pybind11.h>

#include <string>

#include "tBlob.h"
#include "tString.h"

namespace nkpy
{
namespace py = pybind11;

// Python bytes (or bytearray, memoryview) as a tBlob, and back. The GIL must be held.
tBlob blobFrom(py::buffer const& data);
py::bytes bytesOf(tBlob const& blob);
py::bytes bytesOf(tString const& text);
// A text field from either str (UTF-8) or bytes: the library passes bytes through unchanged.
tString textFrom(py::handle value, char const* what);

void bindMessages(py::module_& m);
void bindTelegrams(py::module_& m);
void bindProtocol(py::module_& m);
}  // namespace nkpy

#endif
