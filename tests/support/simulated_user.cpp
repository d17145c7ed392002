#include "support/simulated_user.h"

#include <cstring>
#include <string>

namespace testsupport {
namespace {

constexpr int kPinField = 1001;
constexpr int kMessageTextId = 0xFFFF;

struct Search {
    std::wstring caption;  // the captions looked for are ASCII
    HWND found;
};

BOOL CALLBACK matchVisibleCaption(HWND window, LPARAM parameter) {
    auto* search = reinterpret_cast<Search*>(parameter);
    // Only this program's windows: other DISPLAY programs share the display and run at the same time.
    DWORD process = 0;
    GetWindowThreadProcessId(window, &process);
    if (process != GetCurrentProcessId())
        return TRUE;
    if (!IsWindowVisible(window))
        return TRUE;
    // The caption as the system keeps it, without WM_GETTEXT: GetWindowText sends that message to a
    // window of another thread of this process, and the test's thread does not answer while it
    // waits for this user in finish(), so the two would wait for each other for good.
    wchar_t text[256] = {};
    InternalGetWindowText(window, text, 256);
    if (search->caption == text) {
        search->found = window;
        return FALSE;
    }
    return TRUE;
}

BOOL CALLBACK collectStaticText(HWND child, LPARAM parameter) {
    auto* text = reinterpret_cast<std::string*>(parameter);
    char className[64] = {};
    GetClassNameA(child, className, sizeof className);
    if (_stricmp(className, "Static") == 0) {
        char buffer[1024] = {};
        GetWindowTextA(child, buffer, sizeof buffer);
        if (std::strlen(buffer) > text->size())
            *text = buffer;
    }
    return TRUE;
}

BOOL CALLBACK collectVisibleButtons(HWND child, LPARAM parameter) {
    auto* ids = reinterpret_cast<std::vector<int>*>(parameter);
    char className[64] = {};
    GetClassNameA(child, className, sizeof className);
    if (_stricmp(className, "Button") == 0 && IsWindowVisible(child))
        ids->push_back(GetDlgCtrlID(child));
    return TRUE;
}

// What a PIN message box should not have: an owner window, or buttons other than OK.
std::string messageBoxOddities(HWND box) {
    std::string odd;
    if (GetWindow(box, GW_OWNER) != nullptr)
        odd += " (owned)";
    std::vector<int> buttons;
    EnumChildWindows(box, collectVisibleButtons, reinterpret_cast<LPARAM>(&buttons));
    if (buttons != std::vector<int>{IDOK}) {
        odd += " (buttons";
        for (int id : buttons)
            odd += " " + std::to_string(id);
        odd += ")";
    }
    return odd;
}

}  // namespace

HWND waitForWindow(const char* caption, DWORD timeoutMs, const std::atomic<bool>* cancel) {
    DWORD start = GetTickCount();
    for (;;) {
        Search search{std::wstring(caption, caption + std::strlen(caption)), nullptr};
        EnumWindows(matchVisibleCaption, reinterpret_cast<LPARAM>(&search));
        if (search.found)
            return search.found;
        if (GetTickCount() - start > timeoutMs || (cancel && *cancel))
            return nullptr;
        Sleep(20);
    }
}

bool waitForWindowGone(HWND window, DWORD timeoutMs, const std::atomic<bool>* cancel) {
    DWORD start = GetTickCount();
    while (IsWindow(window) && IsWindowVisible(window)) {
        if (GetTickCount() - start > timeoutMs || (cancel && *cancel))
            return false;
        Sleep(10);
    }
    return true;
}

std::string messageBoxText(HWND box) {
    char buffer[1024] = {};
    if (GetDlgItemTextA(box, kMessageTextId, buffer, sizeof buffer) > 0)
        return buffer;
    std::string text;
    EnumChildWindows(box, collectStaticText, reinterpret_cast<LPARAM>(&text));
    return text;
}

void pressButton(HWND dialog, int id) {
    HWND button = GetDlgItem(dialog, id);
    if (button && IsWindowEnabled(button))
        SendMessageA(button, BM_CLICK, 0, 0);
}

void clickButton(HWND dialog, int id) {
    SendMessageA(GetDlgItem(dialog, id), BM_CLICK, 0, 0);
}

void closeDialog(HWND dialog, UserStep::Kind how) {
    switch (how) {
        case UserStep::PressCancel:
            pressButton(dialog, IDCANCEL);
            break;
        case UserStep::PressEscape: {
            HWND field = GetDlgItem(dialog, kPinField);
            PostMessageA(field, WM_KEYDOWN, VK_ESCAPE, 0x00010001);
            PostMessageA(field, WM_KEYUP, VK_ESCAPE, 0xC0010001);
            break;
        }
        case UserStep::CloseBox:
            PostMessageA(dialog, WM_SYSCOMMAND, SC_CLOSE, 0);
            break;
        case UserStep::SendClose:
            PostMessageA(dialog, WM_CLOSE, 0, 0);
            break;
        default:
            PostMessageA(dialog, WM_COMMAND, MAKEWPARAM(1234, BN_CLICKED), 0);
            break;
    }
}

SimulatedUser::SimulatedUser(std::vector<UserStep> steps, DWORD stepTimeoutMs)
    : steps_(std::move(steps)), timeoutMs_(stepTimeoutMs), thread_([this] { run(); }) {}

SimulatedUser::~SimulatedUser() {
    stop();
}

std::vector<std::string> SimulatedUser::stop() {
    abandon_ = true;
    return finish();
}

std::vector<std::string> SimulatedUser::finish() {
    stop_ = true;
    if (thread_.joinable())
        thread_.join();
    return seen_;
}

void SimulatedUser::run() {
    runSteps();
    while (!stop_) {
        dismissUnexpected();
        Sleep(20);
    }
    dismissUnexpected();
}

void SimulatedUser::dismissUnexpected() {
    if (HWND box = waitForWindow("Calyth", 0)) {
        seen_.push_back("unexpected message:" + messageBoxText(box));
        pressButton(box, IDOK);
        waitForWindowGone(box, 2000);
    }
    if (HWND dialog = waitForWindow("Verify User Pin", 0)) {
        seen_.push_back("unexpected dialog");
        pressButton(dialog, IDCANCEL);
        waitForWindowGone(dialog, 2000);
    }
}

bool SimulatedUser::runSteps() {
    for (const UserStep& step : steps_) {
        if (step.kind == UserStep::AnswerMessage) {
            HWND box = waitForWindow("Calyth", timeoutMs_, &abandon_);
            if (!box) {
                seen_.push_back("timeout:message");
                return false;
            }
            seen_.push_back("message:" + messageBoxText(box) + messageBoxOddities(box));
            pressButton(box, IDOK);
            if (!waitForWindowGone(box, timeoutMs_, &abandon_)) {
                seen_.push_back("timeout:close");
                return false;
            }
            continue;
        }
        HWND dialog = waitForWindow("Verify User Pin", timeoutMs_, &abandon_);
        if (!dialog) {
            seen_.push_back("timeout:dialog");
            return false;
        }
        seen_.push_back("dialog");
        switch (step.kind) {
            case UserStep::EnterPin:
                SetDlgItemTextA(dialog, kPinField, step.text.c_str());
                pressButton(dialog, IDOK);
                break;
            case UserStep::PressCancel:
            case UserStep::PressEscape:
            case UserStep::CloseBox:
            case UserStep::SendClose:
            case UserStep::OtherCommand:
                closeDialog(dialog, step.kind);
                break;
            case UserStep::Custom:
                seen_.push_back(step.action(dialog));
                break;
            default:
                break;
        }
        if (!waitForWindowGone(dialog, timeoutMs_, &abandon_)) {
            seen_.push_back("timeout:close");
            return false;
        }
    }
    return true;
}

}  // namespace testsupport
