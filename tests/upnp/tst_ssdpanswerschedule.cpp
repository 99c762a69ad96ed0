// The schedule of one endpoint's search answers: due times, order, a socket
// that is full for a moment, and the budget under a flood.
#include "ssdpanswerschedule.h"

#include <QtTest>

class tst_SsdpAnswerSchedule : public QObject
{
    Q_OBJECT

private slots:
    void answersGoOutWhenDueAndInOrder();
    void aFlooderLosesItsOwnAnswersNeverANewcomers();
};

namespace {

const QHostAddress Flooder("192.0.2.7");
const QHostAddress Newcomer("192.0.2.8");

struct Sent
{
    QString host;
    int target;
    qint64 at;
};

} // namespace

void tst_SsdpAnswerSchedule::answersGoOutWhenDueAndInOrder()
{
    QElapsedTimer clock;
    clock.start();
    QList<Sent> sent;
    int refusals = 1; // the socket is full once
    SsdpAnswerSchedule schedule([&](const QHostAddress& host, quint16 port, int target) {
        if (target == 2 && refusals-- > 0)
            return false;
        sent.append({host.toString() + ':' + QString::number(port), target, clock.elapsed()});
        return true;
    });
    QVERIFY(schedule.schedule(Flooder, 5000, 0, 200));
    QVERIFY(schedule.schedule(Newcomer, 5001, 1, 60));
    QVERIFY(schedule.schedule(Flooder, 5000, 2, 60));
    QVERIFY(schedule.schedule(Newcomer, 5001, 3, 0));
    QCOMPARE(schedule.pendingCount(), 4);
    QTRY_COMPARE(sent.size(), 4);
    QCOMPARE(sent.at(0).target, 3);
    QCOMPARE(sent.at(1).host, QString("192.0.2.8:5001")); // due together: first scheduled, first sent
    QCOMPARE(sent.at(2).target, 2);                       // after the full socket drained
    QCOMPARE(sent.at(3).host, QString("192.0.2.7:5000"));
    QVERIFY(sent.at(1).at >= 60 && sent.at(3).at >= 200);
    QCOMPARE(schedule.pendingCount(), 0);
}

void tst_SsdpAnswerSchedule::aFlooderLosesItsOwnAnswersNeverANewcomers()
{
    QList<int> sent;
    SsdpAnswerSchedule schedule([&](const QHostAddress&, quint16, int target) {
        sent.append(target);
        return true;
    }, 100);
    for (int i = 0; i < 100; ++i)
        QVERIFY(schedule.schedule(Flooder, 1900, i, 50 + i));
    QVERIFY(!schedule.schedule(Flooder, 1900, 100, 0)); // the largest holder is refused...
    for (int i = 0; i < 3; ++i)
        QVERIFY(schedule.schedule(Newcomer, 1900, 200 + i, 10)); // ...and gives way to others
    QCOMPARE(schedule.pendingCount(), 100);
    QCOMPARE(schedule.pendingCount(Flooder), 97);
    QCOMPARE(schedule.pendingCount(Newcomer), 3);
    QTRY_COMPARE(schedule.pendingCount(), 0);
    // The flooder lost the answers due first.
    QList<int> expected{200, 201, 202};
    for (int i = 3; i < 100; ++i)
        expected << i;
    QCOMPARE(sent, expected);
}

QTEST_GUILESS_MAIN(tst_SsdpAnswerSchedule)
#include "tst_ssdpanswerschedule.moc"
