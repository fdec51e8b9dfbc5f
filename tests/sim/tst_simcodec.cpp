#include "codec.h"

#include <QRandomGenerator>
#include <QtTest>

using namespace hustsim;

namespace {

QList<Request> parseInChunks(const QByteArray &input, int chunk)
{
    RequestParser parser;
    QList<Request> out;
    for (int i = 0; i < input.size(); i += chunk)
        parser.feed(input.constData() + i, qMin(chunk, input.size() - i),
                    [&](Request &&r) { out.append(std::move(r)); });
    return out;
}

} // namespace

// The simulator's request parser on its own: arbitrary input, arbitrary read boundaries.
class TestSimCodec : public QObject
{
    Q_OBJECT

private slots:
    void chunkingDoesNotMatter()
    {
        QRandomGenerator random(20240611);
        const QList<QByteArray> pieces {QByteArray("\x12%\rO9000\rN0\rv01\rd00010\r%\x14"),
                                        QByteArray("\x12%\rO9000\rN1\r%\x14"),
                                        QByteArray("\x12%\rO9012\rN10768\rD000003>9\r%\x14"),
                                        QByteArray("\x12%G00\n%\x14"),
                                        QByteArray("\x12%"),
                                        QByteArray("%\x14"),
                                        QByteArray("\x12"),
                                        QByteArray("garbage\r")};
        // Valid envelopes and loose markers mixed with random bytes.
        QByteArray input;
        for (int i = 0; i < 400; ++i) {
            input += pieces.at(int(random.bounded(pieces.size())));
            for (int k = int(random.bounded(8)); k > 0; --k)
                input += char(random.generate());
        }

        const QList<Request> whole = parseInChunks(input, input.size());
        QVERIFY(!whole.isEmpty());
        for (int chunk : {1, 2, 7, 64}) {
            const QList<Request> split = parseInChunks(input, chunk);
            QCOMPARE(split.size(), whole.size());
            for (int i = 0; i < whole.size(); ++i) {
                QCOMPARE(split.at(i).kind, whole.at(i).kind);
                QCOMPARE(split.at(i).raw, whole.at(i).raw);
            }
        }
        // Everything reported is exactly the input's envelopes, in order.
        int at = 0;
        for (const Request &r : whole) {
            const int found = input.indexOf(r.raw, at);
            QVERIFY(found >= at);
            at = found + r.raw.size();
        }
    }

    void unendedFramesAreBounded_data()
    {
        QTest::addColumn<QByteArray>("opening");
        QTest::addColumn<int>("bound");
        QTest::newRow("request") << QByteArray("\x12%\r") << kMaxRequestFrame;
        QTest::newRow("program after a send header")
            << QByteArray("\x12%\rO9012\rN10768\rD000003>9\r%\x14\x12%") << kMaxProgramFrame;
    }
    void unendedFramesAreBounded()
    {
        QFETCH(QByteArray, opening);
        QFETCH(int, bound);
        RequestParser parser;
        QList<Request> out;
        const auto sink = [&](Request &&r) { out.append(std::move(r)); };
        parser.feed(opening.constData(), opening.size(), sink);
        const QByteArray filler(64 * 1024, 'x');
        for (qint64 fed = 0; fed < 2LL * bound + filler.size(); fed += filler.size())
            parser.feed(filler.constData(), filler.size(), sink);
        QVERIFY(!out.isEmpty());
        QCOMPARE(out.last().kind, FrameKind::Malformed);
        QVERIFY(out.last().raw.size() <= bound + 1);
        // The parser hunts for the next frame again afterwards.
        const QByteArray stop("\x12%\rO9000\rN1\r%\x14");
        parser.feed(stop.constData(), stop.size(), sink);
        QCOMPARE(out.last().kind, FrameKind::Stop);
    }
};

QTEST_GUILESS_MAIN(TestSimCodec)
#include "tst_simcodec.moc"
