// Message windows over those of the boundary.
#include <vel/reactor/message_window.h>

#include <vel/os/message_window.h>
#include <vel/platform/report.h>

namespace VELLib {

HWND create_window(VEL_Window_Procedure procedure, void* context) {
    HWND window = nullptr;
    return vel::report(vel::os::create_window(procedure, context, window)) < 0 ? nullptr : window;
}

int destroy_window(HWND window) { return vel::report(vel::os::destroy_window(window)); }

int post_message(HWND window, uint32_t message, uint64_t wparam, int64_t lparam) {
    return vel::report(vel::os::post_message(window, message, wparam, lparam));
}

int get_message(HWND window, VEL_Window_Message& message, uint32_t timeout_ms) {
    vel::os::WindowMessage taken{};
    const int result = vel::report(vel::os::get_message(window, taken, timeout_ms));
    if (result == 0) message = {taken.message, taken.wparam, taken.lparam};
    return result;
}

int peek_message(HWND window, VEL_Window_Message& message) {
    vel::os::WindowMessage oldest{};
    const int result = vel::report(vel::os::peek_message(window, oldest));
    if (result == 0) message = {oldest.message, oldest.wparam, oldest.lparam};
    return result;
}

int dispatch_message(HWND window, const VEL_Window_Message& message, int64_t* result) {
    int64_t answer = 0;
    const uint32_t code = vel::os::dispatch_message(window, {message.message, message.wparam, message.lparam}, answer);
    if (code == 0 && result) *result = answer;
    return vel::report(code);
}

int get_window_descriptor(HWND window) {
    int descriptor = -1;
    return vel::report(vel::os::window_descriptor(window, descriptor)) < 0 ? -1 : descriptor;
}

} // namespace VELLib
