// klNetRuntimeBase: the cluster runtime service that the hosting application provides.
//
// The library does not implement it. The application derives from it and constructs one
// instance, which registers itself as the process-wide instance; the library and its callers
// reach it through the(). The base also carries the local-host setting: whether the cluster runs
// on this machine only.
//
// Registration rules: every constructed instance (not a copy) replaces the registered one, so the
// most recently constructed wins; destroying any instance, registered or not, clears the
// registration.
//
// Ownership: the registration does not own the instance; the application keeps it alive for as
// long as others may call the().
//
// Thread safety: the registration is atomic, so the() may be called from any thread; construct
// and destroy instances while nobody uses the one returned. The local-host setting is a plain
// value: set it before other threads read it.
#pragma once

#include <klNetBase/klNetBaseExport.h>

#include <atomic>

class KLNETBASE_EXPORT klNetRuntimeBase {
public:
    // Registers this object; local host starts false.
    klNetRuntimeBase();
    // Copies the setting; the copy is not registered.
    klNetRuntimeBase(const klNetRuntimeBase& other);
    klNetRuntimeBase& operator=(const klNetRuntimeBase& other);
    // Clears the registration, whichever instance it names.
    virtual ~klNetRuntimeBase();

    // The registered instance; throws klNetError "No cluster runtime service available" when
    // there is none.
    static klNetRuntimeBase& the();

    // Stores localHost, then starts the runtime (startRuntime).
    void initialize(bool localHost);
    void setLocalHost(bool localHost) { m_localHost = localHost; }
    bool getLocalHost() const { return m_localHost; }

    // Supplied by the application.
    virtual void startRuntime() = 0;
    virtual void stopRuntime() = 0;
    virtual bool isRuntimeRunning() = 0;

private:
    static std::atomic<klNetRuntimeBase*> s_the;

    bool m_localHost = false;
};
