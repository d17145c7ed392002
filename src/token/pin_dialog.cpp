#include "token/pin_dialog.h"

#include "log/log.h"
#include "register/module_instance.h"
#include "resource.h"
#include "token/secret_text.h"

namespace {

// The text of the last dialog. Shared by every thread that shows the dialog, unguarded.
std::string g_enteredPassword;

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
    wipeText(&g_enteredPassword);
    logDebug("Password dialog show window before");
    INT_PTR result = DialogBoxParamA(g_moduleInstance, MAKEINTRESOURCEA(IDD_VERIFY_USER_PIN), nullptr,
                                     passwordDialogProc, 0);
    logDebug("Password dialog show window after");
    if (result != 0) {
        logError("Password dialog creation failed : " + std::to_string(static_cast<long long>(result)));
    }
    return 0;
}

std::string getEnteredPassword() {
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
                wipeText(&g_enteredPassword);
                g_enteredPassword = buffer;
                SecureZeroMemory(buffer, sizeof buffer);
                EndDialog(dialog, 0);
            } else if (id == IDCANCEL) {
                wipeText(&g_enteredPassword);
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
