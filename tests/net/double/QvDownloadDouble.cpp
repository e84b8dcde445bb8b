// Stand-in for the NetSession client's module QvDownload.dll. It declares the session class on its own
// (not through the library's header), so that a slot the library gets wrong shows up in the journal.
//
// Tests drive it through three C exports:
// - QvdScript("key=a,b;key=c"): one session per ';' for each create call in turn, the last repeating.
//   Keys: create (0: the call answers null), error (getLastError), install (needsInstall), resume,
//   stop, pause, state (getState); comma-separated decimal answers, the last repeating, -1 = all ones.
//   Unset keys answer 0. The script, the journal and the session numbers start afresh.
// - QvdJournal(buffer, capacity): one line per call, "#<n> <operation> [argument]" for the n-th session;
//   answers the length needed.
// - QvdLiveSessions(): sessions made and not destroyed.
#include <cstdlib>
#include <deque>
#include <map>
#include <mutex>
#include <sstream>
#include <string>
#include <vector>

namespace {

using Script = std::map<std::string, std::vector<unsigned>>;

std::mutex g_lock;
std::string g_journal;
std::deque<Script> g_script;
int g_created = 0;
int g_live = 0;

void record(const std::string& line)
{
    std::lock_guard<std::mutex> hold(g_lock);
    g_journal += line + "\n";
}

std::string text(const char* value) { return value ? value : "(null)"; }

} // namespace

class AkamaiNetSession final {
public:
    AkamaiNetSession(int number, Script script) : number_(number), script_(std::move(script)) {}

    virtual unsigned needsInstall() { return answer("needsInstall", "install"); } // slot 0
    virtual unsigned resume(void* reserved) { return answer(reserved ? "resume ptr" : "resume null", "resume"); }
    virtual unsigned slot2() { return answer("slot 2", ""); }
    virtual unsigned stop(bool discard)
    {
        stopped_ = true;
        return answer(discard ? "stop 1" : "stop 0", "stop");
    }
    virtual unsigned pause() { return answer("pause", "pause"); }
    virtual void release(const char* url) { log("release " + text(url)); }
    virtual unsigned slot6() { return answer("slot 6", ""); }
    virtual unsigned getState() { return answer("getState", "state"); }
    virtual unsigned slot8() { return answer("slot 8", ""); }
    virtual unsigned getLastError() { return answer("getLastError", "error"); }

    __declspec(dllexport) static AkamaiNetSession* createAkamaiNetSession(const char* application, const char* content,
                                                                        const char* query);
    __declspec(dllexport) static void destroy(AkamaiNetSession* session);
    ~AkamaiNetSession() = default;

private:
    void log(const std::string& what) const { record("#" + std::to_string(number_) + " " + what); }
    unsigned answer(const char* what, const char* key)
    {
        log(what);
        std::vector<unsigned>& values = script_[key];
        if (values.empty())
            return 0;
        const unsigned value = values.front();
        if (values.size() > 1)
            values.erase(values.begin());
        return value;
    }

    int number_;
    Script script_;
    bool stopped_ = false;
};

AkamaiNetSession* AkamaiNetSession::createAkamaiNetSession(const char* application, const char* content,
                                                           const char* query)
{
    std::unique_lock<std::mutex> hold(g_lock);
    const Script script = g_script.empty() ? Script() : g_script.front();
    if (g_script.size() > 1)
        g_script.pop_front();
    const bool made = !script.count("create") || script.at("create").front() != 0;
    g_journal += "#" + std::to_string(++g_created) + " create " + text(application) + "|" + text(content) + "|" +
                 text(query) + (made ? "\n" : " -> null\n");
    g_live += made ? 1 : 0;
    return made ? new AkamaiNetSession(g_created, script) : nullptr;
}

void AkamaiNetSession::destroy(AkamaiNetSession* session)
{
    session->log(session->stopped_ ? "destroy" : "destroy unstopped");
    delete session;
    std::lock_guard<std::mutex> hold(g_lock);
    --g_live;
}

extern "C" {

__declspec(dllexport) void QvdScript(const char* script)
{
    std::deque<Script> sessions;
    std::stringstream in(script ? script : "");
    for (std::string one; std::getline(in, one, ';');) {
        Script session;
        std::stringstream pairs(one);
        for (std::string pair; pairs >> pair;) {
            std::stringstream values(pair.substr(pair.find('=') + 1));
            for (std::string value; std::getline(values, value, ',');)
                session[pair.substr(0, pair.find('='))].push_back(static_cast<unsigned>(std::strtoll(value.c_str(), nullptr, 10)));
        }
        sessions.push_back(session);
    }
    std::lock_guard<std::mutex> hold(g_lock);
    g_script.swap(sessions);
    g_journal.clear();
    g_created = 0;
}

__declspec(dllexport) size_t QvdJournal(char* buffer, size_t capacity)
{
    std::lock_guard<std::mutex> hold(g_lock);
    if (buffer && capacity > 0)
        buffer[g_journal.copy(buffer, capacity - 1)] = '\0';
    return g_journal.size() + 1;
}

__declspec(dllexport) int QvdLiveSessions()
{
    std::lock_guard<std::mutex> hold(g_lock);
    return g_live;
}

} // extern "C"
