// The smallest client of QvDLM: includes the umbrella header, listens to events and makes a token URL.
#include <QvDLM.h>

#include <cstdio>
#include <cstdlib>

class PrintingSubscriber : public EventSubscriber {
public:
    void notify(const EventRecord* record) override
    {
        ++received;
        std::printf("event kind %u value %llu\n", record->kind, static_cast<unsigned long long>(record->value));
    }
    int received = 0;
};

int main()
{
    PrintingSubscriber subscriber;
    EventPublisher* hub = EventPublisher::getInstance();
    hub->subscribe(&subscriber);
    EventRecord record{nullptr, qvdlm::event::StateChange, qvdlm::state::Play};
    hub->publish(&record);
    hub->unsubscribe(&subscriber);

    int64_t expiry = 0;
    char* url = nullptr;
    const int rc = urlauth_gen_URL("http://localhost/pkg.tar.lzma2", 1000, 60, "secret", nullptr, nullptr, &expiry, &url);
    if (rc != 0 || !url)
        return 1;
    std::printf("token url: %s\n", url);
    std::free(url);

    std::printf("state name: %ls; error code: %d\n", qvdlm::stateName(qvdlm::state::Play),
                Download::isErrorCode(qvdlm::status::NetworkError) ? 1 : 0);
    return subscriber.received == 1 ? 0 : 2;
}
