// Stand-in for QvDownload.dll with a session class of its own, so that a wrong slot shows in the journal. QvdScript("key=a,b
// key=c ; ...") scripts the sessions made in turn (keys create, error, install, resume, stop, pause, state; -1 all ones; last
// answer and session repeat; unset 0) and clears the journal, which QvdJournal copies out: "#<n> <call> [argument]" lines.
#include <cstdlib>
#include <deque>
#include <map>
#include <mutex>
#include <sstream>
#include <string>
#include <vector>

namespace {

using Script = std::map<std::string, std::deque<unsigned>>;

std::mutex g_lock;
std::string g_journal;
std::deque<Script> g_script;
int g_created = 0, g_live = 0;

std::string text(const char* value) { return value ? value : "(null)"; }

} // namespace

class AkamaiNetSession final {
public:
    AkamaiNetSession(int number, Script script) : number_(number), script_(std::move(script)) {}

    virtual unsigned needsInstall() { return answer("needsInstall", "install"); }
    virtual unsigned resume(void* reserved) { return answer(reserved ? "resume ptr" : "resume null", "resume"); }
    virtual unsigned slot2() { return answer("slot 2", ""); }
    virtual unsigned stop(bool discard) { return stopped_ = true, answer(discard ? "stop 1" : "stop 0", "stop"); }
    virtual unsigned pause() { return answer("pause", "pause"); }
    virtual void release(const char* url) { answer("release " + text(url), ""); }
    virtual unsigned slot6() { return answer("slot 6", ""); }
    virtual unsigned getState() { return answer("getState", "state"); }
    virtual unsigned slot8() { return answer("slot 8", ""); }
    virtual unsigned getLastError() { return answer("getLastError", "error"); }

    __declspec(dllexport) static AkamaiNetSession* createAkamaiNetSession(const char* application, const char* content,
                                                                        const char* query)
    {
        std::lock_guard<std::mutex> hold(g_lock);
        const Script script = g_script.empty() ? Script() : g_script.front();
        if (g_script.size() > 1)
            g_script.pop_front();
        const bool made = !script.count("create") || script.at("create").front() != 0;
        g_journal += "#" + std::to_string(++g_created) + " create " + text(application) + "|" + text(content) + "|" +
                     text(query) + (made ? "\n" : " -> null\n");
        g_live += made;
        return made ? new AkamaiNetSession(g_created, script) : nullptr;
    }
    __declspec(dllexport) static void destroy(AkamaiNetSession* session)
    {
        session->answer(session->stopped_ ? "destroy" : "destroy unstopped", "");
        delete session;
        std::lock_guard<std::mutex> hold(g_lock);
        --g_live;
    }

private:
    unsigned answer(const std::string& what, const char* key)
    {
        std::lock_guard<std::mutex> hold(g_lock);
        g_journal += "#" + std::to_string(number_) + " " + what + "\n";
        std::deque<unsigned>& values = script_[key];
        const unsigned value = values.empty() ? 0 : values.front();
        if (values.size() > 1)
            values.pop_front();
        return value;
    }

    int number_;
    Script script_;
    bool stopped_ = false;
};

extern "C" {

__declspec(dllexport) void QvdScript(const char* script)
{
    std::deque<Script> sessions(1);
    std::stringstream in(script);
    for (std::string word; in >> word;) {
        if (word == ";")
            sessions.emplace_back();
        std::stringstream values(word.substr(word.find('=') + 1));
        for (std::string value; word != ";" && std::getline(values, value, ',');)
            sessions.back()[word.substr(0, word.find('='))].push_back(static_cast<unsigned>(std::strtoll(value.c_str(), nullptr, 10)));
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

__declspec(dllexport) int QvdLiveSessions() { return g_live; }

} // extern "C"
