// A simulated user for the PIN dialog and the "Calyth" message boxes: a thread that waits for each
// window in turn, acts on it as a person would (types into the PIN field, presses a button, closes
// the window) and records what it saw. Needs a display (DISPLAY test programs).
#pragma once

#include <windows.h>

#include <atomic>
#include <functional>
#include <string>
#include <thread>
#include <vector>

namespace testsupport {

struct UserStep {
    enum Kind {
        EnterPin,       // type `text` into the PIN field and press Login
        PressCancel,    // press Cancel
        PressEscape,    // press the Escape key in the PIN field
        CloseBox,       // the title bar's close box (WM_SYSCOMMAND SC_CLOSE)
        SendClose,      // WM_CLOSE to the dialog
        OtherCommand,   // a WM_COMMAND with an id the dialog does not know
        AnswerMessage,  // read the "Calyth" message box and press OK
        Custom          // run `action` on the PIN dialog; what it returns is recorded
    };
    Kind kind;
    std::string text;
    std::function<std::string(HWND dialog)> action;
};

// Ends the dialog the way a step of that kind does (Cancel, Escape, close box, WM_CLOSE, or a
// command of an unknown id).
void closeDialog(HWND dialog, UserStep::Kind how);

inline UserStep enterPin(const std::string& pin) {
    return {UserStep::EnterPin, pin, nullptr};
}
inline UserStep pressCancel() {
    return {UserStep::PressCancel, {}, nullptr};
}
inline UserStep answerMessage() {
    return {UserStep::AnswerMessage, {}, nullptr};
}
inline UserStep withDialog(std::function<std::string(HWND dialog)> action) {
    return {UserStep::Custom, {}, std::move(action)};
}

// What the user saw, in order: "dialog" for each PIN dialog met, "message:<text>" for each message
// box (followed by " (owned)" when it has an owner window and " (buttons ...)" when its buttons
// are not exactly OK), "timeout:<what>" when an expected window did not appear or close. After its steps (or
// a timeout) the user goes on watching until finish(): every further window is recorded as "unexpected
// dialog" or "unexpected message:<text>" and dismissed, so a failing test never leaves the program waiting
// for a window nobody answers.
class SimulatedUser {
public:
    explicit SimulatedUser(std::vector<UserStep> steps, DWORD stepTimeoutMs = 15000);
    ~SimulatedUser();
    // Waits for the thread to finish all steps (or time out) and returns what it saw.
    std::vector<std::string> finish();
    // Gives up the remaining steps at once (a wait in progress ends as its timeout would, recorded
    // as "timeout:<what>"), dismisses what is on screen and returns what it saw. The destructor
    // stops, so a test that failed early does not wait out the step timeouts.
    std::vector<std::string> stop();

private:
    void run();
    bool runSteps();
    void dismissUnexpected();
    std::vector<UserStep> steps_;
    DWORD timeoutMs_;
    std::vector<std::string> seen_;
    std::atomic<bool> stop_{false};
    std::atomic<bool> abandon_{false};
    std::thread thread_;
};

// A visible top-level window of this process with this caption, waiting up to timeoutMs (less when
// *cancel becomes true); null when none appeared. (FindWindowA would also find the windows of other
// programs on the display.)
HWND waitForWindow(const char* caption, DWORD timeoutMs, const std::atomic<bool>* cancel = nullptr);
// Waits until the window is gone.
bool waitForWindowGone(HWND window, DWORD timeoutMs, const std::atomic<bool>* cancel = nullptr);
// The text of a message box (its static text control).
std::string messageBoxText(HWND box);
// Presses a button of a dialog as a user's click would: nothing when the button is disabled
// (Wine's buttons answer BM_CLICK even then), otherwise BM_CLICK.
void pressButton(HWND dialog, int id);
// The button's own BM_CLICK, whatever its state.
void clickButton(HWND dialog, int id);

}  // namespace testsupport
