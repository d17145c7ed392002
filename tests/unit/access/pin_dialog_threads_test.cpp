// The PIN dialog on several threads at once. The entered text is one process-wide value (the last
// dialog's text): two threads that prompt at the same time each get their own PIN when the user
// answers them in turn, and no thread ever reads a text that is half written, half wiped or freed,
// however the dialogs' reads, writes and wipes overlap.
#include <windows.h>

#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "access_test_support.h"
#include "ksp/ksp_login.h"
#include "resource.h"
#include "support/simulated_user.h"
#include "token/login.h"
#include "token/module_handle.h"
#include "token/pin_dialog.h"
#include "token/token_table.h"

using namespace access_test;
using namespace testsupport;

namespace {

// Longer than the C++ library keeps inside the string object itself, so the text lives on the heap.
const std::string kPinOne(40, '1');
const std::string kPinTwo(63, '2');

struct DialogSearch {
    std::vector<HWND> found;
};

BOOL CALLBACK collectPinDialogs(HWND window, LPARAM parameter) {
    DWORD process = 0;
    GetWindowThreadProcessId(window, &process);
    if (process != GetCurrentProcessId() || !IsWindowVisible(window))
        return TRUE;
    wchar_t text[256] = {};
    InternalGetWindowText(window, text, 256);  // no WM_GETTEXT to another thread's window
    if (std::wstring(text) == L"Verify User Pin")
        reinterpret_cast<DialogSearch*>(parameter)->found.push_back(window);
    return TRUE;
}

// The visible PIN dialogs of this program, waiting up to timeoutMs until there are `count`.
std::vector<HWND> waitForPinDialogs(size_t count, DWORD timeoutMs) {
    DialogSearch search;
    testsupport::waitUntil(
        [&] {
            search.found.clear();
            EnumWindows(collectPinDialogs, reinterpret_cast<LPARAM>(&search));
            return search.found.size() >= count;
        },
        timeoutMs);
    return search.found;
}

HWND dialogOfThread(const std::vector<HWND>& dialogs, DWORD thread) {
    for (HWND dialog : dialogs)
        if (GetWindowThreadProcessId(dialog, nullptr) == thread)
            return dialog;
    return nullptr;
}

class PinDialogThreads : public AccessTest {
protected:
    void SetUp() override {
        AccessTest::SetUp();
        fake::addToken("S1").pin = kPinOne;
        fake::addToken("S2").pin = kPinTwo;
    }
};

TEST_F(PinDialogThreads, TwoThreadsPromptingAtOnceEachGetTheirOwnPin) {
    for (int round = 0; round < 4; ++round) {
        clearValidatedPin("S1");
        clearValidatedPin("S2");
        fake::clearCalls();
        std::atomic<bool> firstOk{false};
        std::atomic<bool> secondOk{false};
        std::atomic<DWORD> firstId{0};
        std::atomic<DWORD> secondId{0};
        std::thread first([&] {
            firstId = GetCurrentThreadId();
            firstOk = kspEnsurePasswordValidated("S1", nullptr);
        });
        std::thread second([&] {
            secondId = GetCurrentThreadId();
            secondOk = kspEnsurePasswordValidated("S2", nullptr);
        });

        // Both dialogs are on screen at once: neither thread waits for the other's dialog.
        std::vector<HWND> dialogs = waitForPinDialogs(2, 15000);
        HWND firstDialog = dialogOfThread(dialogs, firstId);
        HWND secondDialog = dialogOfThread(dialogs, secondId);
        EXPECT_NE(firstDialog, nullptr);
        EXPECT_NE(secondDialog, nullptr);

        // The user answers one, and the other once the first thread has its PIN; the order changes
        // from round to round.
        bool firstGoesFirst = round % 2 == 0;
        std::thread& earlier = firstGoesFirst ? first : second;
        std::thread& later = firstGoesFirst ? second : first;
        HWND earlierDialog = firstGoesFirst ? firstDialog : secondDialog;
        HWND laterDialog = firstGoesFirst ? secondDialog : firstDialog;
        if (earlierDialog != nullptr) {
            SetDlgItemTextA(earlierDialog, IDC_USER_PIN, (firstGoesFirst ? kPinOne : kPinTwo).c_str());
            pressButton(earlierDialog, IDOK);
        }
        earlier.join();
        if (laterDialog != nullptr) {
            SetDlgItemTextA(laterDialog, IDC_USER_PIN, (firstGoesFirst ? kPinTwo : kPinOne).c_str());
            pressButton(laterDialog, IDOK);
        }
        later.join();

        EXPECT_TRUE(firstOk) << "round " << round;
        EXPECT_TRUE(secondOk) << "round " << round;
        EXPECT_EQ(getValidatedPin("S1"), kPinOne) << "round " << round;
        EXPECT_EQ(getValidatedPin("S2"), kPinTwo) << "round " << round;
        EXPECT_EQ(fake::countCalls("calyth_validatePassword"), 2u) << "no wrong PIN was tried";
    }
}

// The dialog procedure's writes (Login), its wipes (Cancel) and the reads of the entered text run
// on five threads at once, thousands of times: every text read is one that was entered, or empty.
TEST_F(PinDialogThreads, OverlappingWritesWipesAndReadsNeverGiveAPartText) {
    const std::string textA(200, 'A');
    const std::string textB(90, 'B');
    constexpr int kRounds = 2000;
    std::atomic<int> ready{0};
    std::atomic<bool> writersDone{false};

    // A hidden, modeless PIN dialog on this thread, whose Login or Cancel is handled `rounds` times.
    auto pressRepeatedly = [&](const std::string& text, int button) {
        HWND dialog = CreateDialogParamA(providerModule(), MAKEINTRESOURCEA(IDD_VERIFY_USER_PIN), nullptr,
                                         passwordDialogProc, 0);
        if (dialog != nullptr)
            SetDlgItemTextA(dialog, IDC_USER_PIN, text.c_str());
        ++ready;
        while (ready < 3)
            std::this_thread::yield();
        if (dialog == nullptr)
            return false;
        for (int i = 0; i < kRounds; ++i) {
            passwordDialogProc(dialog, WM_COMMAND, MAKEWPARAM(button, BN_CLICKED), 0);
            MSG message;
            while (PeekMessageA(&message, nullptr, 0, 0, PM_REMOVE))
                DispatchMessageA(&message);
        }
        DestroyWindow(dialog);
        return true;
    };
    std::atomic<int> dialogsMade{0};
    std::vector<std::thread> writers;
    writers.emplace_back([&] { dialogsMade += pressRepeatedly(textA, IDOK) ? 1 : 0; });
    writers.emplace_back([&] { dialogsMade += pressRepeatedly(textB, IDOK) ? 1 : 0; });
    writers.emplace_back([&] { dialogsMade += pressRepeatedly(std::string(), IDCANCEL) ? 1 : 0; });

    // What an earlier dialog left behind is a whole text too.
    const std::string earlier = getEnteredPassword();
    std::atomic<int> reads{0};
    std::atomic<int> partTexts{0};
    std::mutex sampleMutex;
    std::string sample;
    std::vector<std::thread> readers;
    for (int r = 0; r < 2; ++r) {
        readers.emplace_back([&] {
            while (!writersDone) {
                std::string text = getEnteredPassword();
                if (!text.empty() && text != textA && text != textB && text != earlier) {
                    ++partTexts;
                    std::lock_guard<std::mutex> lock(sampleMutex);
                    sample = std::to_string(text.size()) + " characters: " + text.substr(0, 12);
                }
                ++reads;
            }
        });
    }
    for (std::thread& writer : writers)
        writer.join();
    writersDone = true;
    for (std::thread& reader : readers)
        reader.join();

    ASSERT_EQ(dialogsMade.load(), 3);
    EXPECT_GT(reads.load(), 0);
    EXPECT_EQ(partTexts.load(), 0) << "of " << reads.load() << " reads, e.g. " << sample;
}

}  // namespace
