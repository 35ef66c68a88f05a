#include "src/dev/Card.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

std::atomic<CRegisterTap*> g_registerTap{nullptr};

struct CardHandle {
    std::string device;
    int refCount = 0;
#if QUVO_HAVE_EXANIC
    exanic_t* pExanic = nullptr;
#endif
    std::unique_ptr<CSoftCard> softCard;
    // Buffers acquired through this handle and not yet released. A pipeline
    // restart acquires again without releasing, so the handle keeps them
    // until they are released or the last holder lets the device go.
    std::vector<std::unique_ptr<CardRx>> rxBuffers;
};

namespace {

std::mutex g_cardMutex;
// Never destroyed: a device still held at exit (a run that ended on a
// failure) stays reachable, as its memory is the process's until it ends.
std::map<std::string, CardHandle*>& g_handles = *new std::map<std::string, CardHandle*>();
std::string g_lastError;

CardRx* Keep(CardHandle* handle, std::unique_ptr<CardRx> rx) {
    CardRx* raw = rx.get();
    std::lock_guard<std::mutex> lock(g_cardMutex);
    handle->rxBuffers.push_back(std::move(rx));
    return raw;
}

void SetLastError(const std::string& text) {
    std::lock_guard<std::mutex> lock(g_cardMutex);
    g_lastError = text;
}

}  // namespace

bool card_is_software(const char* device) {
    const std::string name(device);
    std::string options;
    return name.rfind("replay:", 0) == 0 || soft_card_find_source(name, options) != nullptr;
}

bool card_check_device(const std::string& device, std::string& detail) {
    if (card_is_software(device.c_str())) {
        std::string why;
        std::unique_ptr<CSoftCard> card = CSoftCard::Open(device, why);
        if (!card) {
            detail = "software card: " + why;
            return false;
        }
        CSoftPort* decoded = card->GetPort(0);
        CSoftPort* raw = card->GetPort(1);
        detail = decoded != nullptr && raw != nullptr
                     ? "software card replaying " + std::to_string(decoded->GetFrameCount()) +
                           " decoded and " + std::to_string(raw->GetFrameCount()) + " raw frames"
                     : "software card (" + device.substr(0, device.find(':')) + ")";
        return true;
    }
#if QUVO_HAVE_EXANIC
    const std::string file = "/dev/" + device;
    if (access(file.c_str(), R_OK | W_OK) != 0) {
        detail = "card " + device + ": " + file + ": " + strerror(errno);
        return false;
    }
    detail = "card " + device + " (" + file + "), with card support in this build";
    return true;
#else
    detail = "card " + device + ": this build has no card support (build with the card preset)";
    return false;
#endif
}

CardHandle* card_acquire_handle(const char* device) {
    std::string why;
    if (card_is_software(device) && soft_card_take_failure(SOFT_STEP_HANDLE, why)) {
        SetLastError(why);
        return nullptr;
    }
    std::lock_guard<std::mutex> lock(g_cardMutex);
    auto found = g_handles.find(device);
    if (found != g_handles.end()) {
#if QUVO_HAVE_EXANIC
        // libexanic counts its own references; keep them in step with ours.
        if (found->second->pExanic != nullptr && exanic_acquire_handle(device) == nullptr) {
            g_lastError = exanic_get_last_error();
            return nullptr;
        }
#endif
        ++found->second->refCount;
        if (found->second->softCard) {
            found->second->softCard->NoteEvent("handle acquired");
        }
        return found->second;
    }

    auto handle = std::make_unique<CardHandle>();
    handle->device = device;
    if (card_is_software(device)) {
        handle->softCard = CSoftCard::Open(device, why);
        if (!handle->softCard) {
            g_lastError = why;
            return nullptr;
        }
    } else {
#if QUVO_HAVE_EXANIC
        handle->pExanic = exanic_acquire_handle(device);
        if (handle->pExanic == nullptr) {
            g_lastError = exanic_get_last_error();
            return nullptr;
        }
#else
        g_lastError =
            "this build has no ExaNIC card support: install the card's software (libexanic) and rebuild "
            "with cmake -DQUVO_WITH_EXANIC=ON, or use device = replay:raw=FILE,decoded=FILE";
        return nullptr;
#endif
    }
    handle->refCount = 1;
    if (handle->softCard) {
        handle->softCard->NoteEvent("handle acquired");
    }
    CardHandle* raw = handle.release();
    g_handles[raw->device] = raw;
    return raw;
}

volatile uint32_t* card_get_devkit_registers(CardHandle* handle) {
    if (handle->softCard) {
        std::string why;
        if (soft_card_take_failure(SOFT_STEP_REGISTERS, why)) {
            SetLastError(why);
            return nullptr;
        }
        return handle->softCard->GetRegisters();
    }
#if QUVO_HAVE_EXANIC
    volatile uint32_t* registers = exanic_get_devkit_registers(handle->pExanic);
    if (registers == nullptr) {
        SetLastError(exanic_get_last_error());
    }
    return registers;
#else
    return nullptr;
#endif
}

CardRx* card_acquire_rx_buffer(CardHandle* handle, int port, int bufferNumber) {
    auto rx = std::make_unique<CardRx>();
    rx->pHandle = handle;
    if (handle->softCard) {
        std::string why;
        const ESoftCardStep step = port == 0 ? SOFT_STEP_RX_PORT0 : SOFT_STEP_RX_PORT1;
        if (soft_card_take_failure(step, why)) {
            SetLastError(why);
            return nullptr;
        }
        if ((port != 0 && port != 1) || bufferNumber != 0) {
            SetLastError("the software card has ports 0 and 1 with buffer 0 only, not port " +
                         std::to_string(port) + " buffer " + std::to_string(bufferNumber));
            return nullptr;
        }
        rx->pSoftCard = handle->softCard.get();
        rx->softPort = port;
#if QUVO_HAVE_EXANIC
        if (rx->pSoftCard->UsesRing()) {
            rx->pExanicRx = &rx->softReader;
            rx->pSoftCard->AttachRing(port, rx->softReader);
        } else {
            rx->pSoftCard->AttachDirect(port);
        }
#else
        rx->pSoftCard->AttachDirect(port);
#endif
        rx->pSoftCard->NoteEvent("rx " + std::to_string(port) + " acquired");
        return Keep(handle, std::move(rx));
    }
#if QUVO_HAVE_EXANIC
    rx->pExanicRx = exanic_acquire_rx_buffer(handle->pExanic, port, bufferNumber);
    if (rx->pExanicRx == nullptr) {
        SetLastError(exanic_get_last_error());
        return nullptr;
    }
    return Keep(handle, std::move(rx));
#else
    return nullptr;
#endif
}

void card_release_rx_buffer(CardRx* rx) {
    if (rx->pSoftCard != nullptr) {
        rx->pSoftCard->NoteEvent("rx " + std::to_string(rx->softPort) + " released");
#if QUVO_HAVE_EXANIC
        if (rx->pSoftCard->UsesRing()) {
            rx->pSoftCard->NoteReaderReleased(rx->softPort, rx->softReader);
        }
#endif
    }
#if QUVO_HAVE_EXANIC
    else if (rx->pExanicRx != nullptr) {
        exanic_release_rx_buffer(rx->pExanicRx);
    }
#endif
    std::lock_guard<std::mutex> lock(g_cardMutex);
    std::vector<std::unique_ptr<CardRx>>& kept = rx->pHandle->rxBuffers;
    for (auto it = kept.begin(); it != kept.end(); ++it) {
        if (it->get() == rx) {
            kept.erase(it);
            return;
        }
    }
}

void card_release_handle(CardHandle* handle) {
    std::lock_guard<std::mutex> lock(g_cardMutex);
#if QUVO_HAVE_EXANIC
    if (handle->pExanic != nullptr) {
        exanic_release_handle(handle->pExanic);
    }
#endif
    if (handle->softCard) {
        handle->softCard->NoteEvent("handle released");
        handle->softCard->OnHandleReleased();
    }
    if (--handle->refCount == 0) {
        g_handles.erase(handle->device);
        delete handle;
    }
}

const char* card_get_last_error() {
    std::lock_guard<std::mutex> lock(g_cardMutex);
    return g_lastError.c_str();
}

CSoftCard* card_get_soft_card(CardHandle* handle) {
    return handle->softCard.get();
}

int card_get_ref_count(const char* device) {
    std::lock_guard<std::mutex> lock(g_cardMutex);
    const auto found = g_handles.find(device);
    return found == g_handles.end() ? 0 : found->second->refCount;
}
