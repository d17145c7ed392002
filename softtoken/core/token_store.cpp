#include "token_store.h"

#include <windows.h>

#include <algorithm>
#include <cstring>
#include <mutex>

#include "certificate.h"
#include "status.h"

namespace softtoken {
namespace {

// The lock covers one byte far beyond the change counter, so that locking never blocks a reader
// of the counter.
constexpr DWORD kLockOffset = 0x10000000;

struct Stamp {
    uint64_t counter = 0;
    uint64_t size = 0;
    uint64_t writeTime = 0;
    bool operator==(const Stamp& o) const {
        return counter == o.counter && size == o.size && writeTime == o.writeTime;
    }
};

struct TokenFiles {
    std::string tokenPath;
    std::string lockPath;
    std::mutex writeMutex;  // one writer per process at a time
    std::mutex stateMutex;  // guards the fields below
    HANDLE lock = INVALID_HANDLE_VALUE;
    TokenRef cached;
    Stamp cachedStamp;
};

std::mutex registryMutex;
std::map<std::string, std::unique_ptr<TokenFiles>>& registry() {
    static auto* files = new std::map<std::string, std::unique_ptr<TokenFiles>>();
    return *files;
}

TokenFiles& filesFor(const std::string& root, const std::string& serial) {
    std::string path = tokenFilePath(root, serial);
    std::lock_guard<std::mutex> guard(registryMutex);
    std::unique_ptr<TokenFiles>& entry = registry()[path];
    if (!entry) {
        entry.reset(new TokenFiles);
        entry->tokenPath = path;
        entry->lockPath = root + "\\" + serial + ".lock";
    }
    return *entry;
}

// The lock file handle, opened on first use and kept for the life of the process.
HANDLE lockHandle(TokenFiles& files) {
    std::lock_guard<std::mutex> guard(files.stateMutex);
    if (files.lock == INVALID_HANDLE_VALUE)
        files.lock = CreateFileA(files.lockPath.c_str(), GENERIC_READ | GENERIC_WRITE,
                                 FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr, OPEN_ALWAYS,
                                 FILE_ATTRIBUTE_NORMAL, nullptr);
    return files.lock;
}

uint64_t readCounter(HANDLE lock) {
    if (lock == INVALID_HANDLE_VALUE)
        return 0;
    unsigned char bytes[8] = {};
    OVERLAPPED at{};
    DWORD got = 0;
    if (!ReadFile(lock, bytes, sizeof bytes, &got, &at) || got != sizeof bytes)
        return 0;
    uint64_t value = 0;
    for (int i = 7; i >= 0; --i)
        value = value << 8 | bytes[i];
    return value;
}

void writeCounter(HANDLE lock, uint64_t value) {
    unsigned char bytes[8];
    for (int i = 0; i < 8; ++i)
        bytes[i] = static_cast<unsigned char>(value >> (8 * i));
    OVERLAPPED at{};
    DWORD written = 0;
    WriteFile(lock, bytes, sizeof bytes, &written, &at);
}

class FileLock {
public:
    FileLock(HANDLE handle, bool exclusive) : handle_(handle) {
        if (handle_ == INVALID_HANDLE_VALUE)
            return;
        OVERLAPPED at{};
        at.Offset = kLockOffset;
        locked_ = LockFileEx(handle_, exclusive ? LOCKFILE_EXCLUSIVE_LOCK : 0, 0, 1, 0, &at) != FALSE;
    }
    ~FileLock() {
        if (locked_) {
            OVERLAPPED at{};
            at.Offset = kLockOffset;
            UnlockFileEx(handle_, 0, 1, 0, &at);
        }
    }
    bool locked() const { return locked_; }

private:
    HANDLE handle_;
    bool locked_ = false;
};

// Size and time of the token file; false when it does not exist.
bool fileStamp(const TokenFiles& files, Stamp& stamp) {
    WIN32_FILE_ATTRIBUTE_DATA attributes;
    if (!GetFileAttributesExA(files.tokenPath.c_str(), GetFileExInfoStandard, &attributes) ||
        (attributes.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY))
        return false;
    stamp.size = uint64_t(attributes.nFileSizeHigh) << 32 | attributes.nFileSizeLow;
    stamp.writeTime =
        uint64_t(attributes.ftLastWriteTime.dwHighDateTime) << 32 | attributes.ftLastWriteTime.dwLowDateTime;
    return true;
}

// False when the token file does not exist.
bool currentStamp(TokenFiles& files, HANDLE lock, Stamp& stamp) {
    if (!fileStamp(files, stamp))
        return false;
    stamp.counter = readCounter(lock);
    return true;
}

// Builds the shared view, reusing parsed private keys of `previous` whose bytes did not change.
int buildLoaded(TokenData&& data, const TokenRef& previous, TokenRef& out) {
    auto loaded = std::make_shared<LoadedToken>();
    for (const KeyRecord& key : data.keys) {
        std::shared_ptr<PrivateKey> parsed;
        if (previous) {
            const KeyRecord* old = previous->data.findKey(key.id.data());
            if (old && old->privateKey == key.privateKey && old->sizeCode == key.sizeCode)
                parsed = previous->privateKey(key.id.data());
        }
        if (!parsed)
            parsed = PrivateKey::fromCanonical(key.privateKey, key.sizeCode);
        if (!parsed)
            return kCorruptToken;
        loaded->privateKeys[key.id] = parsed;
    }
    loaded->data = std::move(data);
    out = loaded;
    return kOk;
}

// Reads and parses the file; the caller holds at least a shared lock.
int readToken(TokenFiles& files, const std::string& serial, HANDLE lock, TokenRef& out) {
    Stamp stamp;
    if (!currentStamp(files, lock, stamp))
        return kNoToken;
    {
        std::lock_guard<std::mutex> guard(files.stateMutex);
        if (files.cached && files.cachedStamp == stamp) {
            out = files.cached;
            return kOk;
        }
    }
    Bytes content;
    if (!readWholeFile(files.tokenPath, content))
        return kNoToken;
    TokenData data;
    int status = parseToken(std::string(content.begin(), content.end()), data);
    if (status != kOk)
        return status;
    if (data.serial != serial)
        return kNoToken;
    TokenRef previous;
    {
        std::lock_guard<std::mutex> guard(files.stateMutex);
        previous = files.cached;
    }
    TokenRef loaded;
    status = buildLoaded(std::move(data), previous, loaded);
    if (status != kOk)
        return status;
    std::lock_guard<std::mutex> guard(files.stateMutex);
    files.cached = loaded;
    files.cachedStamp = stamp;
    out = loaded;
    return kOk;
}

bool ensureFolder(const std::string& path) {
    if (path.empty())
        return false;
    DWORD attributes = GetFileAttributesA(path.c_str());
    if (attributes != INVALID_FILE_ATTRIBUTES)
        return (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
    size_t cut = path.find_last_of("\\/");
    if (cut != std::string::npos && cut > 0 && path[cut - 1] != ':')
        ensureFolder(path.substr(0, cut));
    return CreateDirectoryA(path.c_str(), nullptr) || GetLastError() == ERROR_ALREADY_EXISTS;
}

bool writeAtomically(const std::string& path, const std::string& text) {
    std::string temporary =
        path + ".tmp-" + std::to_string(GetCurrentProcessId()) + "-" + std::to_string(GetCurrentThreadId());
    HANDLE file = CreateFileA(temporary.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS,
                              FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE)
        return false;
    DWORD written = 0;
    bool ok = WriteFile(file, text.data(), static_cast<DWORD>(text.size()), &written, nullptr) &&
              written == text.size();
    CloseHandle(file);
    // A reader of another process may hold the old file open for a moment: try again briefly.
    for (int attempt = 0; ok && attempt < 100; ++attempt) {
        if (MoveFileExA(temporary.c_str(), path.c_str(), MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH))
            return true;
        Sleep(10);
    }
    DeleteFileA(temporary.c_str());
    return false;
}

// Writes `data` as the token's new state; the caller holds the exclusive lock.
int writeToken(TokenFiles& files, HANDLE lock, TokenData&& data, TokenRef* after) {
    if (!writeAtomically(files.tokenPath, serializeToken(data)))
        return kStoreError;
    Stamp stamp;
    stamp.counter = readCounter(lock) + 1;
    writeCounter(lock, stamp.counter);
    TokenRef previous;
    {
        std::lock_guard<std::mutex> guard(files.stateMutex);
        previous = files.cached;
    }
    TokenRef loaded;
    int status = buildLoaded(std::move(data), previous, loaded);
    if (status != kOk)
        return status;
    std::lock_guard<std::mutex> guard(files.stateMutex);
    if (currentStamp(files, lock, stamp)) {
        files.cached = loaded;
        files.cachedStamp = stamp;
    }
    if (after)
        *after = loaded;
    return kOk;
}

std::vector<std::string> scanSerials(const std::string& root) {
    std::vector<std::string> serials;
    WIN32_FIND_DATAA entry;
    HANDLE search = FindFirstFileA((root + "\\*.token").c_str(), &entry);
    if (search == INVALID_HANDLE_VALUE)
        return serials;
    static const std::string suffix = ".token";
    do {
        std::string name = entry.cFileName;
        if ((entry.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) || name.size() <= suffix.size() ||
            name.compare(name.size() - suffix.size(), suffix.size(), suffix) != 0)
            continue;
        std::string serial = name.substr(0, name.size() - suffix.size());
        if (isValidSerial(serial))
            serials.push_back(serial);
    } while (FindNextFileA(search, &entry));
    FindClose(search);
    std::sort(serials.begin(), serials.end());
    return serials;
}

// Listing a store folder costs ten times more than reading the folder's time, and every device
// list (each acquisition, the provider's monitor every second) lists it. So the serials are kept
// while the folder's last-write time, which moves whenever a file in it is made, renamed or
// deleted, stays the same. A folder changed within the last two seconds is listed afresh on every
// call: two changes within one tick of the file system's clock leave the same time behind.
struct FolderListing {
    uint64_t writeTime = 0;
    std::vector<std::string> serials;
};

std::mutex listingMutex;
std::map<std::string, FolderListing>& listings() {
    static auto* kept = new std::map<std::string, FolderListing>();
    return *kept;
}

constexpr uint64_t kSettleTime = 2 * 10000000ull;  // in 100 ns units

// The folder's last-write time; false when there is no such folder or it changed too recently.
bool settledFolderTime(const std::string& folder, uint64_t& writeTime) {
    WIN32_FILE_ATTRIBUTE_DATA attributes;
    if (!GetFileAttributesExA(folder.c_str(), GetFileExInfoStandard, &attributes) ||
        !(attributes.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY))
        return false;
    writeTime =
        uint64_t(attributes.ftLastWriteTime.dwHighDateTime) << 32 | attributes.ftLastWriteTime.dwLowDateTime;
    FILETIME now;
    GetSystemTimeAsFileTime(&now);
    uint64_t nowTime = uint64_t(now.dwHighDateTime) << 32 | now.dwLowDateTime;
    return nowTime > writeTime + kSettleTime;
}

}  // namespace

std::shared_ptr<PrivateKey> LoadedToken::privateKey(const unsigned char* id) const {
    if (!id)
        return nullptr;
    KeyId key;
    std::memcpy(key.data(), id, key.size());
    auto found = privateKeys.find(key);
    return found == privateKeys.end() ? nullptr : found->second;
}

std::string storeRoot() {
    char buffer[MAX_PATH * 2];
    DWORD length = GetEnvironmentVariableA("CALYTH_TOKEN_STORE", buffer, sizeof buffer);
    std::string root;
    if (length > 0 && length < sizeof buffer) {
        root.assign(buffer, length);
    } else {
        length = GetEnvironmentVariableA("LOCALAPPDATA", buffer, sizeof buffer);
        if (length == 0 || length >= sizeof buffer) {
            length = GetEnvironmentVariableA("USERPROFILE", buffer, sizeof buffer);
            root = std::string(buffer, length < sizeof buffer ? length : 0) + "\\AppData\\Local";
        } else {
            root.assign(buffer, length);
        }
        root += "\\Calyth\\SoftToken";
    }
    while (root.size() > 3 && (root.back() == '\\' || root.back() == '/'))
        root.pop_back();
    return root;
}

std::string tokenFilePath(const std::string& root, const std::string& serial) {
    return root + "\\" + serial + ".token";
}

int loadToken(const std::string& serial, TokenRef& out) {
    if (!isValidSerial(serial))
        return kNoToken;
    std::string root = storeRoot();
    TokenFiles& files = filesFor(root, serial);
    // The file is looked at before the lock file is opened, so that asking for a serial that has
    // no token leaves nothing behind.
    Stamp stamp;
    if (!fileStamp(files, stamp))
        return kNoToken;
    HANDLE lock = lockHandle(files);
    stamp.counter = readCounter(lock);
    {
        std::lock_guard<std::mutex> guard(files.stateMutex);
        if (files.cached && files.cachedStamp == stamp) {
            out = files.cached;
            return kOk;
        }
    }
    FileLock shared(lock, false);
    return readToken(files, serial, lock, out);
}

int updateToken(const std::string& serial, const TokenChange& change, TokenRef* after) {
    if (!isValidSerial(serial))
        return kNoToken;
    std::string root = storeRoot();
    TokenFiles& files = filesFor(root, serial);
    if (GetFileAttributesA(files.tokenPath.c_str()) == INVALID_FILE_ATTRIBUTES)
        return kNoToken;
    std::lock_guard<std::mutex> writer(files.writeMutex);
    HANDLE lock = lockHandle(files);
    FileLock exclusive(lock, true);
    if (!exclusive.locked())
        return kStoreError;
    TokenRef current;
    int status = readToken(files, serial, lock, current);
    if (status != kOk)
        return status;
    TokenData data = current->data;
    bool changed = false;
    int result = change(data, changed);
    if (!changed) {
        if (after)
            *after = current;
        return result;
    }
    status = writeToken(files, lock, std::move(data), after);
    return status != kOk ? status : result;
}

int createToken(const TokenData& token, bool replace) {
    if (!isValidSerial(token.serial))
        return kBadArgument;
    std::string root = storeRoot();
    if (!ensureFolder(root))
        return kStoreError;
    TokenFiles& files = filesFor(root, token.serial);
    std::lock_guard<std::mutex> writer(files.writeMutex);
    HANDLE lock = lockHandle(files);
    FileLock exclusive(lock, true);
    if (!exclusive.locked())
        return kStoreError;
    if (!replace && GetFileAttributesA(files.tokenPath.c_str()) != INVALID_FILE_ATTRIBUTES)
        return kAlreadyExists;
    TokenData copy = token;
    return writeToken(files, lock, std::move(copy), nullptr);
}

int deleteToken(const std::string& serial) {
    if (!isValidSerial(serial))
        return kNoToken;
    std::string root = storeRoot();
    TokenFiles& files = filesFor(root, serial);
    std::lock_guard<std::mutex> writer(files.writeMutex);
    HANDLE lock = lockHandle(files);
    FileLock exclusive(lock, true);
    if (!DeleteFileA(files.tokenPath.c_str()))
        return GetLastError() == ERROR_FILE_NOT_FOUND ? kNoToken : kStoreError;
    // The lock file stays: another process may hold it open, and a token made again under the
    // same serial must share the same lock.
    writeCounter(lock, readCounter(lock) + 1);
    std::lock_guard<std::mutex> guard(files.stateMutex);
    files.cached.reset();
    return kOk;
}

std::vector<std::string> listTokenSerials() {
    std::string root = storeRoot();
    uint64_t writeTime = 0;
    bool settled = settledFolderTime(root, writeTime);
    if (settled) {
        std::lock_guard<std::mutex> guard(listingMutex);
        auto found = listings().find(root);
        if (found != listings().end() && found->second.writeTime == writeTime)
            return found->second.serials;
    }
    std::vector<std::string> serials = scanSerials(root);
    if (settled) {
        std::lock_guard<std::mutex> guard(listingMutex);
        listings()[root] = FolderListing{writeTime, serials};
    }
    return serials;
}

}  // namespace softtoken
