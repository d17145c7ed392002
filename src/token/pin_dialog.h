// The modal "Verify User Pin" dialog (resource 101).
#pragma once

#include <windows.h>

#include <string>

// Shows the dialog on the calling thread without an owner and returns 0 when it closes.
int showPasswordDialog();
// The text of the last dialog; empty after Cancel, close, or a dialog that could not be shown.
std::string getEnteredPassword();
INT_PTR CALLBACK passwordDialogProc(HWND dialog, UINT message, WPARAM wParam, LPARAM lParam);
