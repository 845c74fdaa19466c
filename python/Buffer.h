// The bytes of a caller's buffer, read where they are: any object of the
// buffer protocol whose memory is contiguous (bytes, bytearray, memoryview,
// mmap, array, NumPy arrays), held for as long as the view lives.
#pragma once

#include <pybind11/pybind11.h>

#include <cstddef>
#include <string>

namespace trdcomp_python {

class ByteView {
public:
    // `what` names the argument in the TypeError of an object that is no
    // contiguous buffer.
    ByteView(const pybind11::handle& object, const char* what) {
        if (!PyObject_CheckBuffer(object.ptr()))
            throw pybind11::type_error(std::string(what) + " must be bytes or another contiguous buffer of bytes, not " +
                                       std::string(pybind11::str(object.get_type().attr("__name__"))));
        if (PyObject_GetBuffer(object.ptr(), &view_, PyBUF_C_CONTIGUOUS) != 0) {
            PyErr_Clear();
            throw pybind11::type_error(std::string(what) + " is a buffer whose bytes are not contiguous (a memoryview with a "
                                       "step, a transposed array): pass bytes(...) of it, or a contiguous copy");
        }
        held_ = true;
    }
    ~ByteView() {
        if (held_) PyBuffer_Release(&view_);
    }
    ByteView(const ByteView&) = delete;
    ByteView& operator=(const ByteView&) = delete;

    const char* data() const { return static_cast<const char*>(view_.buf); }
    std::size_t size() const { return static_cast<std::size_t>(view_.len); }

private:
    Py_buffer view_{};
    bool held_ = false;
};

}  // namespace trdcomp_python
