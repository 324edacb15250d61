// The library's diagnostic lines (std::cout for the scanner's findings,
// std::cerr for everything else) go to Python's sys.stdout and sys.stderr, so
// that contextlib.redirect_stdout, pytest's capture and a program's own
// logging see them. A thread may instead collect the lines it produces (the
// asyncio layer turns a time-out line into an exception).
#include <unistd.h>

#include <pybind11/stl.h>

#include <iostream>
#include <streambuf>
#include <string>
#include <vector>

#include "bindings.hpp"

namespace ocp_api::python {
namespace {

// Lines this thread collects instead of writing, while a capture is active.
thread_local std::vector<std::string>* captured_lines = nullptr;

// A stream buffer that assembles text per thread (lines written at the same
// time by the receive thread and a host thread never mix) and hands every
// flushed piece to sys.stdout or sys.stderr with the GIL.
class PythonStreamBuffer : public std::streambuf {
public:
    PythonStreamBuffer(const char* stream_name, int fallback_fd) : name_(stream_name), fallback_fd_(fallback_fd) {}

protected:
    int_type overflow(int_type c) override {
        if (!traits_type::eq_int_type(c, traits_type::eof())) pending().push_back(traits_type::to_char_type(c));
        return traits_type::not_eof(c);
    }

    std::streamsize xsputn(const char* text, std::streamsize count) override {
        pending().append(text, static_cast<std::size_t>(count));
        return count;
    }

    int sync() override {
        std::string& text = pending();
        if (text.empty()) return 0;
        std::string out;
        out.swap(text);
        if (captured_lines) {
            if (!out.empty() && out.back() == '\n') out.pop_back();
            captured_lines->push_back(std::move(out));
            return 0;
        }
        write_to_python(out);
        return 0;
    }

private:
    // One pending text per thread and stream (two buffers: stdout, stderr).
    std::string& pending() {
        thread_local std::string per_stream[2];
        return per_stream[fallback_fd_ == STDERR_FILENO ? 1 : 0];
    }

    void write_to_python(const std::string& text) const {
        if (interpreter_finalizing()) {
            write_to_fd(text);
            return;
        }
        py::gil_scoped_acquire gil;
        try {
            const py::object stream = py::module_::import("sys").attr(name_);
            if (stream.is_none()) {
                write_to_fd(text);
                return;
            }
            stream.attr("write")(py::str(text.data(), text.size()));
            stream.attr("flush")();
        } catch (py::error_already_set& error) {
            report_unraisable(error, "ocp_api diagnostic line");
        }
    }

    void write_to_fd(const std::string& text) const {
        std::size_t done = 0;
        while (done < text.size()) {
            const ssize_t written = ::write(fallback_fd_, text.data() + done, text.size() - done);
            if (written <= 0) return;
            done += static_cast<std::size_t>(written);
        }
    }

    const char* name_;
    int fallback_fd_;
};

// Runs `callable()` with this thread's diagnostic lines collected; returns
// (result, lines).
py::tuple call_capturing_diagnostics(const py::function& callable) {
    std::vector<std::string> lines;
    struct Restore {
        std::vector<std::string>* previous;
        ~Restore() { captured_lines = previous; }
    } restore{captured_lines};
    captured_lines = &lines;
    py::object result = callable();
    return py::make_tuple(result, py::cast(lines));
}

}  // namespace

void bind_diagnostics(py::module_& module) {
    // Never destroyed: the C++ streams may be written to until the process ends.
    static auto* out = new PythonStreamBuffer("stdout", STDOUT_FILENO);
    static auto* err = new PythonStreamBuffer("stderr", STDERR_FILENO);
    std::cout.rdbuf(out);
    std::cerr.rdbuf(err);
    module.def("_call_capturing_diagnostics", &call_capturing_diagnostics, py::arg("callable"),
               "Calls ``callable()`` and returns ``(result, lines)``: the diagnostic lines the\n"
               "library produced on this thread meanwhile, instead of printing them.");
}

}  // namespace ocp_api::python
