#ifndef SSDPANSWERSCHEDULE_H
#define SSDPANSWERSCHEDULE_H

#include <QBasicTimer>
#include <QElapsedTimer>
#include <QHash>
#include <QHostAddress>
#include <QObject>

#include <functional>
#include <vector>

// The search answers one SSDP endpoint owes, each due at its own random time
// within the searcher's MX: one compact schedule (a heap of small records and
// a single timer), not a timer per answer, so that a flood of searches costs
// little memory and the schedule shrinks back once it has drained.
//
// The schedule has a budget. Once it is spent, the host that holds the most
// pending answers loses: its new answers are refused, and an answer for any
// other host takes the place of one of its pending ones. A searcher that
// behaves is answered in full while another floods.
class SsdpAnswerSchedule : public QObject
{
    Q_OBJECT

public:
    // Pending answers at most: room for one searcher at 10,000 searches a
    // second, three answers each, all due within a second.
    static constexpr int DefaultBudget = 65536;
    // Answers written in one turn of the event loop; the rest follow on the
    // next turns, so that searches and other work go on during a burst.
    static constexpr int AnswersPerTurn = 256;

    // Writes the answer for target to host:port; false when the socket can
    // take nothing more right now (the answer is tried again shortly).
    using Sender = std::function<bool(const QHostAddress& host, quint16 port, int target)>;

    explicit SsdpAnswerSchedule(Sender sender, int budget = DefaultBudget, QObject* parent = nullptr);
    ~SsdpAnswerSchedule() override;

    // Schedules the answer for target to host:port after delayMs. False when
    // the budget is spent and host holds the most pending answers.
    bool schedule(const QHostAddress& host, quint16 port, int target, qint64 delayMs);

    int pendingCount() const { return pending; }
    int pendingCount(const QHostAddress& host) const;

protected:
    void timerEvent(QTimerEvent* event) override;

private:
    struct Host
    {
        QHostAddress address;
        int pending = 0;
        int evicted = 0; // answers taken from this host, skipped when they fall due
    };
    // 24 bytes an answer.
    struct Answer
    {
        qint64 due;
        Host* host;
        quint32 order; // first come, first answered among answers due together
        quint16 port;
        quint8 target;
    };

    // Heap order: the answer due first, and of those the one scheduled first,
    // on top. A type rather than a function, so that the heap's sifting
    // compares inline: a flood keeps tens of thousands of answers in it.
    struct DueLater
    {
        bool operator()(const Answer& a, const Answer& b) const
        {
            return a.due != b.due ? a.due > b.due : qint32(a.order - b.order) > 0;
        }
    };
    void onTimeout();
    Host* largestHost();
    void remove(Host* host);
    void arm();

    Sender send;
    int budget;
    int pending = 0;
    quint32 nextOrder = 0;
    std::vector<Answer> heap; // earliest due first
    QHash<QHostAddress, Host*> hosts;
    Host* largest = nullptr;
    qint64 largestCheckedAt = -1;
    QElapsedTimer clock;
    // A bare timer: it fires for about every millisecond in which an answer
    // falls due, and a signal per shot would only add to that.
    QBasicTimer timer;
};

#endif // SSDPANSWERSCHEDULE_H
