// Connection to a server that answers every line with a line, for programs with a loop of their own.
#pragma once

#include <functional>
#include <string>
#include <vel/frame/error.h>
#include <vel/reactor/message_window.h>
#include <vel/reactor/winsock_stream.h>

/// What happens to the connection arrives as messages of a window, whose descriptor the program's loop polls; on a
/// readable one it calls `serve`.
class Line_Client : public VEL_WinSock_Stream {
public:
    std::function<void(const std::string& line)> on_line; // an answer, without the line's end
    std::function<void(uint32_t error)> on_end;           // 0x20000012: the server has closed

    /// Drops the connection and what the window still holds of it.
    ~Line_Client() override {
        close();
        if (window_) VELLib::destroy_window(window_);
    }

    int connect(const char* host, uint16_t port) {
        window_ = VELLib::create_window(on_message, this);
        return window_ ? open(window_, connection_message, host, port) : -1;
    }

    int descriptor() const { return VELLib::get_window_descriptor(window_); }

    /// Takes one message. The descriptor stays readable while there are more, so the loop's other sources have their
    /// turn in between.
    void serve() {
        VEL_Window_Message message;
        if (VELLib::get_message(window_, message, 0) == 0) VELLib::dispatch_message(window_, message);
    }

    /// Sends a line; one sent before the connection stands waits for that.
    void say(const std::string& line) {
        const std::string whole = line + '\n';
        ++open_;
        if (send(VEL_Byte_Block(whole.size(), whole.data())) < 0) end(VELLib::GetErrorCode());
    }

    unsigned answers() const { return answers_; }
    bool is_answered() const { return open_ == 0; }

    int handle_connect(uint32_t error) override { return error == 0 ? 0 : end(error); }

    int handle_read_stream(const void* data, uint64_t size, uint32_t error) override {
        if (error != 0) return end(error);
        arrived_.append(static_cast<const char*>(data), size);
        for (size_t length; (length = arrived_.find('\n')) != std::string::npos; arrived_.erase(0, length + 1)) {
            ++answers_;
            --open_;
            on_line(arrived_.substr(0, length));
        }
        return 0;
    }

    int handle_close(uint32_t error) override { return end(error); }

private:
    static constexpr uint32_t connection_message = 1;

    /// The window's procedure.
    static int64_t on_message(HWND, uint32_t, uint64_t, int64_t notice, void* context) {
        auto* client = static_cast<Line_Client*>(context);
        return client->is_open() ? client->dispatch_event(static_cast<int32_t>(notice)) : 0;
    }

    int end(uint32_t error) {
        close();
        on_end(error);
        return -1;
    }

    HWND window_ = nullptr;
    std::string arrived_;
    unsigned open_ = 0; // lines not answered yet
    unsigned answers_ = 0;
};
