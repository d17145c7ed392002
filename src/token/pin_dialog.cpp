#include "token/pin_dialog.h"

#include <mutex>

#include "log/log.h"
#include "resource.h"
#include "token/module_handle.h"
#include "token/secret_text.h"

namespace {

// The text of the last dialog, shared by every thread that shows the dialog: the last writer wins.
// The lock guards its three uses (emptied when a dialog is shown, written or wiped by a dialog's
// Login or Cancel, copied out afterwards) and is never held while a dialog runs.
std::mutex g_enteredPasswordMutex;
std::string g_enteredPassword;

// Wipes the text and, when given, puts `text` in its place.
void replaceEnteredPassword(const char* text) {
    std::lock_guard<std::mutex> lock(g_enteredPasswordMutex);
    wipeText(&g_enteredPassword);
    if (text != nullptr)
        g_enteredPassword = text;
}

constexpr int kPasswordBufferSize = 256;
constexpr int kMinimumPinLength = 4;
constexpr int kMaximumPinLength = 63;

// Login is offered only for 4 to 63 characters: the length minus 4, taken unsigned, below 60.
bool acceptableLength(int length) {
    return static_cast<unsigned>(length - kMinimumPinLength) <
           static_cast<unsigned>(kMaximumPinLength - kMinimumPinLength + 1);
}

}  // namespace

int showPasswordDialog() {
    logDebug("Password dialog show window");
    replaceEnteredPassword(nullptr);
    logDebug("Password dialog show window before");
    INT_PTR result = DialogBoxParamA(providerModule(), MAKEINTRESOURCEA(IDD_VERIFY_USER_PIN), nullptr,
                                     passwordDialogProc, 0);
    logDebug("Password dialog show window after");
    if (result != 0) {
        logError("Password dialog creation failed : " + std::to_string(static_cast<long long>(result)));
    }
    return 0;
}

std::string getEnteredPassword() {
    std::lock_guard<std::mutex> lock(g_enteredPasswordMutex);
    return g_enteredPassword;
}

INT_PTR CALLBACK passwordDialogProc(HWND dialog, UINT message, WPARAM wParam, LPARAM /*lParam*/) {
    switch (message) {
        case WM_INITDIALOG:
            EnableWindow(GetDlgItem(dialog, IDOK), FALSE);
            return TRUE;
        case WM_COMMAND: {
            const int id = LOWORD(wParam);
            const int notification = HIWORD(wParam);
            if (id == IDOK) {
                char buffer[kPasswordBufferSize] = {};
                GetDlgItemTextA(dialog, IDC_USER_PIN, buffer, kPasswordBufferSize);
                replaceEnteredPassword(buffer);
                SecureZeroMemory(buffer, sizeof buffer);
                EndDialog(dialog, 0);
            } else if (id == IDCANCEL) {
                replaceEnteredPassword(nullptr);
                EndDialog(dialog, 0);
            } else if (id == IDC_USER_PIN) {
                if (notification == EN_CHANGE) {
                    int length = GetWindowTextLengthA(GetDlgItem(dialog, IDC_USER_PIN));
                    EnableWindow(GetDlgItem(dialog, IDOK), acceptableLength(length) ? TRUE : FALSE);
                }
            } else {
                EndDialog(dialog, 0);
            }
            return TRUE;
        }
        case WM_CLOSE:
            EndDialog(dialog, 0);
            return TRUE;
        default:
            return FALSE;
    }
}
