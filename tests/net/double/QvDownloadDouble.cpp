// Stand-in for the NetSession client's module QvDownload.dll. It declares the session class on its own
// (not through the library's header), so that a slot the library gets wrong shows up in the journal.
#include <winsock2.h>
#include <windows.h>

#include <cstdio>
#include <cstdlib>
#include <deque>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <vector>

#include "double/FileServer.h"
#include "double/QvDownloadControl.h"

#define QVD_EXPORT __declspec(dllexport)

namespace {

struct SessionScript {
    std::vector<unsigned> create{1}, error{0}, install{0}, resume{0}, stop{0}, pause{0}, state{0};
};

struct Answers {
    std::vector<unsigned> values;
    size_t next = 0;
    unsigned take()
    {
        const unsigned value = values[next < values.size() ? next : values.size() - 1];
        if (next < values.size())
            ++next;
        return value;
    }
};

std::mutex g_lock;
std::vector<std::string> g_journal;
std::deque<SessionScript> g_script;
int g_createCalls = 0;
int g_liveSessions = 0;
qvdouble::FileServer* g_endpoint = nullptr;
qvdouble::FileServer* g_origin = nullptr;

void record(const std::string& line)
{
    std::lock_guard<std::mutex> hold(g_lock);
    g_journal.push_back(line);
}

std::vector<unsigned> parseAnswers(const std::string& text)
{
    std::vector<unsigned> values;
    std::stringstream in(text);
    std::string item;
    while (std::getline(in, item, ','))
        if (!item.empty())
            values.push_back(static_cast<unsigned>(std::strtoll(item.c_str(), nullptr, 10)));
    if (values.empty())
        values.push_back(0);
    return values;
}

SessionScript parseSession(const std::string& text)
{
    SessionScript script;
    std::stringstream in(text);
    std::string pair;
    while (in >> pair) {
        const size_t eq = pair.find('=');
        if (eq == std::string::npos)
            continue;
        const std::string key = pair.substr(0, eq);
        const std::vector<unsigned> values = parseAnswers(pair.substr(eq + 1));
        if (key == "create") script.create = values;
        else if (key == "error") script.error = values;
        else if (key == "install") script.install = values;
        else if (key == "resume") script.resume = values;
        else if (key == "stop") script.stop = values;
        else if (key == "pause") script.pause = values;
        else if (key == "state") script.state = values;
        else record("script: unknown key " + key);
    }
    return script;
}

std::string text(const char* value) { return value ? std::string(value) : std::string("(null)"); }

} // namespace

class AkamaiNetSession final {
public:
    AkamaiNetSession(int number, const SessionScript& script)
        : number_(number), error_{script.error}, install_{script.install}, resume_{script.resume},
          stop_{script.stop}, pause_{script.pause}, state_{script.state}
    {
    }

    virtual unsigned needsInstall()
    {
        log("needsInstall");
        return install_.take();
    }
    virtual unsigned resume(void* reserved)
    {
        log(reserved ? "resume ptr" : "resume null");
        return resume_.take();
    }
    virtual unsigned slot2() { return unexpected(2); }
    virtual unsigned stop(bool discard)
    {
        stopped_ = true;
        log(discard ? "stop 1" : "stop 0");
        return stop_.take();
    }
    virtual unsigned pause()
    {
        log("pause");
        return pause_.take();
    }
    virtual void release(const char* url) { log("release " + text(url)); }
    virtual unsigned slot6() { return unexpected(6); }
    virtual unsigned getState()
    {
        log("getState");
        return state_.take();
    }
    virtual unsigned slot8() { return unexpected(8); }
    virtual unsigned getLastError()
    {
        log("getLastError");
        return error_.take();
    }

    QVD_EXPORT static AkamaiNetSession* createAkamaiNetSession(const char* application, const char* content,
                                                               const char* query);
    QVD_EXPORT static void destroy(AkamaiNetSession* session);

    ~AkamaiNetSession() = default;

    int number() const { return number_; }
    bool stopped() const { return stopped_; }
    void log(const std::string& what) const { record("#" + std::to_string(number_) + " " + what); }

private:
    unsigned unexpected(int slot)
    {
        log("slot " + std::to_string(slot));
        return 0;
    }

    int number_;
    bool stopped_ = false;
    Answers error_, install_, resume_, stop_, pause_, state_;
};

AkamaiNetSession* AkamaiNetSession::createAkamaiNetSession(const char* application, const char* content,
                                                           const char* query)
{
    SessionScript script;
    int number = 0;
    {
        std::lock_guard<std::mutex> hold(g_lock);
        number = ++g_createCalls;
        if (!g_script.empty()) {
            script = g_script.front();
            if (g_script.size() > 1)
                g_script.pop_front();
        }
    }
    const bool made = script.create.front() != 0;
    record("#" + std::to_string(number) + " create " + text(application) + "|" + text(content) + "|" + text(query) +
           (made ? "" : " -> null"));
    if (!made)
        return nullptr;
    {
        std::lock_guard<std::mutex> hold(g_lock);
        ++g_liveSessions;
    }
    return new AkamaiNetSession(number, script);
}

void AkamaiNetSession::destroy(AkamaiNetSession* session)
{
    if (!session) {
        record("destroy (null)");
        return;
    }
    session->log(session->stopped() ? "destroy" : "destroy unstopped");
    delete session;
    std::lock_guard<std::mutex> hold(g_lock);
    --g_liveSessions;
}

extern "C" {

QVD_EXPORT void QvdScript(const char* script)
{
    std::deque<SessionScript> sessions;
    std::stringstream in(script ? script : "");
    std::string one;
    while (std::getline(in, one, ';'))
        sessions.push_back(parseSession(one));
    std::lock_guard<std::mutex> hold(g_lock);
    g_script.swap(sessions);
}

QVD_EXPORT void QvdReset()
{
    std::lock_guard<std::mutex> hold(g_lock);
    g_journal.clear();
    g_script.clear();
    g_createCalls = 0;
}

QVD_EXPORT void QvdClearJournal()
{
    std::lock_guard<std::mutex> hold(g_lock);
    g_journal.clear();
}

QVD_EXPORT size_t QvdJournal(char* buffer, size_t capacity)
{
    std::string all;
    {
        std::lock_guard<std::mutex> hold(g_lock);
        for (const std::string& line : g_journal)
            all += line + "\n";
    }
    if (buffer && capacity > 0) {
        const size_t n = all.size() < capacity - 1 ? all.size() : capacity - 1;
        all.copy(buffer, n);
        buffer[n] = '\0';
    }
    return all.size() + 1;
}

QVD_EXPORT int QvdLiveSessions()
{
    std::lock_guard<std::mutex> hold(g_lock);
    return g_liveSessions;
}

// Servers run threads of this module: it stays loaded for the rest of the process once one started.
static void pinModule()
{
    HMODULE self = nullptr;
    GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_PIN,
                       reinterpret_cast<LPCWSTR>(&pinModule), &self);
}

static int startServer(qvdouble::FileServer*& slot, qvdouble::FileServer::Kind kind, const wchar_t* root, uint16_t port)
{
    if (slot || !root)
        return 0;
    pinModule();
    auto server = std::make_unique<qvdouble::FileServer>(kind, root, record);
    if (!server->start(port))
        return 0;
    slot = server.release();
    return 1;
}

QVD_EXPORT int QvdStartEndpoint(const wchar_t* root, uint16_t port)
{
    return startServer(g_endpoint, qvdouble::FileServer::Kind::ServingEndpoint, root, port);
}

QVD_EXPORT int QvdStartOrigin(const wchar_t* root, uint16_t port)
{
    return startServer(g_origin, qvdouble::FileServer::Kind::Origin, root, port);
}

QVD_EXPORT void QvdSetEndpointFailing(int failing)
{
    if (g_endpoint)
        g_endpoint->setFailure(static_cast<qvdouble::FileServer::Failure>(failing));
}

QVD_EXPORT void QvdStopServers()
{
    delete g_endpoint;
    g_endpoint = nullptr;
    delete g_origin;
    g_origin = nullptr;
}

} // extern "C"
