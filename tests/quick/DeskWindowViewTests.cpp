// The desk window as a person uses it, offscreen, against a fake desk: what a drag, a key or a
// click sends, and what the window shows when the desk's state changes.

#include <QDropEvent>
#include <QMimeData>
#include <QQuickItem>
#include <QTest>

#include "quick/DeskViewFixture.hpp"

namespace tarn::test {
namespace {

QPointF centreOf(QQuickItem* item) { return item->mapToScene(QPointF(item->width() / 2, item->height() / 2)); }

// Presses on the slider's handle and drags it to `to` in small steps, as a hand does.
void drag(QQuickWindow* window, QQuickItem* slider, QPointF to) {
    auto* handle = slider->property("handle").value<QQuickItem*>();
    ASSERT_TRUE(handle);
    const QPointF from = centreOf(handle);
    QTest::mousePress(window, Qt::LeftButton, {}, from.toPoint());
    constexpr int steps = 12;
    for (int i = 1; i <= steps; ++i) QTest::mouseMove(window, (from + (to - from) * (double(i) / steps)).toPoint(), 5);
    QTest::mouseRelease(window, Qt::LeftButton, {}, to.toPoint(), 5);
}

TEST_F(DeskView, DraggingABandSliderSendsThatBandsValueForTheSelectedRoute) {
    QQuickItem* slider = item("band3");
    ASSERT_TRUE(slider);
    auto* handle = slider->property("handle").value<QQuickItem*>();
    const QPointF atZero = centreOf(handle);

    // To the very top: the band's ceiling, +12 dB.
    drag(window, slider, slider->mapToScene(QPointF(slider->width() / 2, 0)));
    ASSERT_TRUE(eventually([&] { return fake->last("SetBand") && fake->last("SetBand")->arguments.value(2).toDouble() == 12.0; }));
    const auto top = fake->last("SetBand");
    EXPECT_EQ(top->arguments.value(0).toString(), first.id);
    EXPECT_EQ(top->arguments.value(1).toInt(), 3);
    EXPECT_DOUBLE_EQ(top->arguments.value(2).toDouble(), 12.0);
    const QPointF atTwelve = centreOf(handle);
    ASSERT_LT(atTwelve.y(), atZero.y());

    // Halfway between where the handle sat at 0 and at +12: +6 dB, a whole step.
    fake->clearCalls();
    drag(window, slider, QPointF(atZero.x(), (atZero.y() + atTwelve.y()) / 2));
    ASSERT_TRUE(eventually([&] { return fake->last("SetBand") && fake->last("SetBand")->arguments.value(2).toDouble() == 6.0; }))
        << "last sent: " << (fake->last("SetBand") ? fake->last("SetBand")->arguments.value(2).toDouble() : -99);
    for (const auto& call : fake->calls())
        if (call.method == "SetBand") EXPECT_EQ(call.arguments.value(1).toInt(), 3) << "only the dragged band moves";

    // And to the bottom: −12 dB. No other route is touched on the way.
    drag(window, slider, slider->mapToScene(QPointF(slider->width() / 2, slider->height())));
    ASSERT_TRUE(eventually([&] { return fake->last("SetBand")->arguments.value(2).toDouble() == -12.0; }));
    for (const auto& call : fake->calls())
        if (call.method == "SetBand") EXPECT_EQ(call.arguments.value(0).toString(), first.id);
}

TEST_F(DeskView, KeysMoveABandByStepsAndPagesResetItMuteAndRemoveTheRoute) {
    QQuickItem* slider = item("band5");
    ASSERT_TRUE(slider);
    slider->forceActiveFocus();
    QTest::keyClick(window, Qt::Key_PageUp);
    const auto up = awaitCall("SetBand");
    ASSERT_TRUE(up);
    EXPECT_EQ(up->arguments.value(1).toInt(), 5);
    EXPECT_DOUBLE_EQ(up->arguments.value(2).toDouble(), 3.0);
    QTest::keyClick(window, Qt::Key_Up);
    EXPECT_DOUBLE_EQ(awaitCall("SetBand", 2)->arguments.value(2).toDouble(), 3.5);
    QTest::keyClick(window, Qt::Key_PageDown);
    QTest::keyClick(window, Qt::Key_PageDown);
    QTest::keyClick(window, Qt::Key_PageDown);
    awaitCall("SetBand", 5);
    std::vector<double> sent;
    for (const auto& call : fake->calls())
        if (call.method == "SetBand") sent.push_back(call.arguments.value(2).toDouble());
    EXPECT_EQ(sent, (std::vector<double>{3.0, 3.5, 0.5, -2.5, -5.5}));
    QTest::keyClick(window, Qt::Key_0);
    EXPECT_DOUBLE_EQ(awaitCall("SetBand", 6)->arguments.value(2).toDouble(), 0.0);

    QTest::keyClick(window, Qt::Key_M);
    const auto mute = awaitCall("SetMuted");
    ASSERT_TRUE(mute);
    EXPECT_EQ(mute->arguments.value(0).toString(), first.id);
    EXPECT_TRUE(mute->arguments.value(1).toBool());

    // Delete asks first; nothing is removed until the person agrees.
    QTest::keyClick(window, Qt::Key_Delete);
    QObject* confirm = object("removeDialog");
    ASSERT_TRUE(confirm);
    ASSERT_TRUE(eventually([&] { return confirm->property("opened").toBool(); }));
    EXPECT_EQ(fake->count("RemoveRoute"), 0);
    QMetaObject::invokeMethod(confirm, "accept");
    const auto removed = awaitCall("RemoveRoute");
    ASSERT_TRUE(removed);
    EXPECT_EQ(removed->arguments.value(0).toString(), first.id);
}

TEST_F(DeskView, AHealthChangeShowsItsBadgeAndTheRoutesMessage) {
    auto badgeOf = [&](const QString& id) -> QString {
        for (QQuickItem* row : items("routeRow"))
            if (row->property("routeKey").toString() == id)
                for (QQuickItem* badge : items("healthBadge"))
                    if (row->isAncestorOf(badge)) return badge->property("text").toString();
        return {};
    };
    auto messageOf = [&](const QString& id) -> QString {
        for (QQuickItem* row : items("routeRow"))
            if (row->property("routeKey").toString() == id)
                for (QQuickItem* message : items("routeMessage"))
                    if (row->isAncestorOf(message)) return message->property("text").toString();
        return {};
    };
    ASSERT_TRUE(eventually([&] { return badgeOf(second.id) == "Verified"; })) << badgeOf(second.id).toStdString();
    EXPECT_EQ(messageOf(second.id), "") << "no message while all is well";

    second.health = "lost";
    second.message = "source app stopped";
    fake->set("Routes", routesJSON({first, second}));
    EXPECT_TRUE(eventually([&] { return badgeOf(second.id) == "Lost"; })) << badgeOf(second.id).toStdString();
    EXPECT_TRUE(eventually([&] { return messageOf(second.id) == "source app stopped"; }));
    EXPECT_EQ(badgeOf(first.id), "Verified") << "the other route keeps its badge";
}

TEST_F(DeskView, TheHeadphoneSearchFindsTheHD650AsAPersonTypesAndPicksItWithTheKeyboard) {
    QQuickItem* field = item("catalogueSearch");
    ASSERT_TRUE(field);
    field->forceActiveFocus();
    type("hd 650");
    EXPECT_EQ(field->property("text").toString(), "hd 650");
    QQuickItem* results = item("catalogueResults");
    ASSERT_TRUE(results);
    ASSERT_TRUE(eventually([&] {
        QQuickItem* top = nullptr;
        QMetaObject::invokeMethod(results, "itemAtIndex", Q_RETURN_ARG(QQuickItem*, top), Q_ARG(int, 0));
        return top && top->property("text").toString().startsWith("Sennheiser HD 650");
    }));
    QQuickItem* top = nullptr;
    QMetaObject::invokeMethod(results, "itemAtIndex", Q_RETURN_ARG(QQuickItem*, top), Q_ARG(int, 0));
    EXPECT_TRUE(top->property("text").toString().contains("oratory1990")) << "the measurement source is shown";

    QTest::keyClick(window, Qt::Key_Down);
    QTest::keyClick(window, Qt::Key_Return);
    const auto chosen = awaitCall("SetProfile");
    ASSERT_TRUE(chosen);
    EXPECT_EQ(chosen->arguments.value(0).toString(), first.id);
    EXPECT_EQ(chosen->arguments.value(1).toString(), "oratory1990.over-ear.sennheiser-hd-650");
}

TEST_F(DeskView, AddListsWhatPlaysWithItsCategoryAndAddsItInTheChosenDefaultMode) {
    fake->set("Processes", R"([{"objectID":7,"pid":70,"bundleID":"firefox","displayName":"Firefox","category":"browser","isRunningOutput":true},
                              {"objectID":8,"pid":80,"bundleID":"org.example.Music","displayName":"Music","category":"other","isRunningOutput":true}])");
    desk->settings().setDefaultMode("auto");
    QObject* dialog = object("addDialog");
    ASSERT_TRUE(dialog);
    QMetaObject::invokeMethod(dialog, "open");
    ASSERT_TRUE(eventually([&] { return items("process").size() == 2; }));
    QQuickItem* firefox = nullptr;
    for (QQuickItem* p : items("process"))
        if (p->isEnabled()) firefox = p; // "Music" is routed already
    ASSERT_TRUE(firefox);
    click(firefox);
    const auto added = awaitCall("AddRoute");
    ASSERT_TRUE(added);
    EXPECT_EQ(added->arguments, (QVariantList{"firefox", "Firefox", "", "auto"}));
}

TEST_F(DeskView, TheCurveIsAskedForOncePerEditBurstNeverForMetersAndFollowsTheOffsetsChannel) {
    ASSERT_TRUE(eventually([&] { return fake->count("ResponseCurve") >= 1; }));
    EXPECT_EQ(fake->last("ResponseCurve")->arguments, (QVariantList{first.id, 0}));
    QTest::qWait(100);
    fake->clearCalls();

    for (int i = 1; i <= 30; ++i)
        fake->sendMeters(QString(R"([{"id":"%1","inputPeak":%2,"outputPeak":%2}])").arg(first.id).arg(0.02 * i));
    QTest::qWait(300);
    EXPECT_EQ(fake->count("ResponseCurve"), 0) << "meters never redraw the curve";

    // A burst of route changes, as a drag makes: one question.
    for (double gain : {1.0, 2.0, 3.0}) {
        first.muted = gain > 2;
        fake->set("Routes", routesJSON({first, second}));
    }
    ASSERT_TRUE(eventually([&] { return fake->count("ResponseCurve") >= 1; }));
    QTest::qWait(200);
    EXPECT_LE(fake->count("ResponseCurve"), 2);

    // Opening the right channel's offsets draws that channel.
    QQuickItem* curve = item("responseCurve");
    ASSERT_TRUE(curve);
    QObject* offsets = nullptr;
    for (QObject* o : window->findChildren<QObject*>())
        if (o->property("channelNames").isValid()) offsets = o;
    ASSERT_TRUE(offsets);
    offsets->setProperty("visible", true);
    offsets->setProperty("channel", 1);
    ASSERT_TRUE(eventually([&] { return fake->last("ResponseCurve") && fake->last("ResponseCurve")->arguments.value(1).toInt() == 1; }));
}

TEST_F(DeskView, TheDeckBarShowsWhatPlaysAndItsControlsReachTheDeck) {
    EXPECT_EQ(item("deckTitle"), nullptr) << "no deck bar while nothing is queued";
    fake->set("Deck", R"({"state":"paused","trackIndex":0,"title":"Morning Tide","artist":"The Tarns",)"
                      R"("durationSeconds":200,"positionSeconds":50,"queue":[{"path":"/m/1.flac","name":"1"},{"path":"/m/2.flac","name":"2"}]})");
    ASSERT_TRUE(eventually([&] { return item("deckTitle") && item("deckTitle")->property("text").toString() == "Morning Tide"; }));

    // The play button plays (the deck is paused); a drag on the position seeks once, on release.
    QQuickItem* position = item("deckPosition");
    ASSERT_TRUE(position);
    EXPECT_DOUBLE_EQ(position->property("value").toDouble(), 50.0);
    const QPointF left = position->mapToScene(QPointF(position->width() * 0.02, position->height() / 2));
    const QPointF threeQuarters = position->mapToScene(QPointF(position->width() * 0.75, position->height() / 2));
    QTest::mousePress(window, Qt::LeftButton, {}, left.toPoint());
    for (int i = 1; i <= 10; ++i) QTest::mouseMove(window, (left + (threeQuarters - left) * (i / 10.0)).toPoint(), 5);
    QTest::mouseRelease(window, Qt::LeftButton, {}, threeQuarters.toPoint(), 5);
    const auto seek = awaitCall("DeckSeek");
    ASSERT_TRUE(seek);
    EXPECT_NEAR(seek->arguments.value(0).toDouble(), 150.0, 12.0) << "three quarters into 200 s";
    EXPECT_EQ(fake->count("DeckSeek"), 1) << "one seek for one drag";

    // The queue: the first entry dragged by its handle below the second moves it there.
    QObject* queue = nullptr;
    for (QObject* o : window->findChildren<QObject*>())
        if (o->metaObject()->indexOfMethod("open()") >= 0 && o->property("width").toInt() == 420) queue = o;
    ASSERT_TRUE(queue);
    QMetaObject::invokeMethod(queue, "open");
    ASSERT_TRUE(eventually([&] { return items("queueHandle").size() == 2; }));
    QQuickItem* handle = items("queueHandle").front();
    QQuickItem* entry = items("queueEntry").front();
    const QPointF from = handle->mapToScene(QPointF(handle->width() / 2, handle->height() / 2));
    const QPointF to = from + QPointF(0, entry->height() * 1.1);
    QTest::mousePress(window, Qt::LeftButton, {}, from.toPoint());
    for (int i = 1; i <= 10; ++i) QTest::mouseMove(window, (from + (to - from) * (i / 10.0)).toPoint(), 5);
    QTest::mouseRelease(window, Qt::LeftButton, {}, to.toPoint(), 5);
    const auto moved = awaitCall("DeckMove");
    ASSERT_TRUE(moved);
    EXPECT_EQ(moved->arguments, (QVariantList{0, 1}));
}

TEST_F(DeskView, FilesDroppedOnTheWindowGoToTheDecksQueue) {
    QMimeData files;
    files.setUrls({QUrl::fromLocalFile("/music/a.flac"), QUrl::fromLocalFile("/music/b.mp3")});
    const QPoint at(640, 400);
    QDragEnterEvent enter(at, Qt::CopyAction, &files, Qt::LeftButton, Qt::NoModifier);
    QCoreApplication::sendEvent(window, &enter);
    QDragMoveEvent move(at, Qt::CopyAction, &files, Qt::LeftButton, Qt::NoModifier);
    QCoreApplication::sendEvent(window, &move);
    QDropEvent drop(at, Qt::CopyAction, &files, Qt::LeftButton, Qt::NoModifier);
    QCoreApplication::sendEvent(window, &drop);
    const auto opened = awaitCall("DeckOpen");
    ASSERT_TRUE(opened);
    EXPECT_EQ(opened->arguments.value(0).toStringList(), (QStringList{"/music/a.flac", "/music/b.mp3"}));
    EXPECT_FALSE(opened->arguments.value(1).toBool()) << "an empty deck takes them as its queue";
    EXPECT_TRUE(awaitCall("DeckPlay")) << "and plays them";
}

TEST_F(DeskView, EveryDialogOpensWithoutAWarning) {
    for (const char* name : {"addDialog", "settingsDialog", "onboarding", "removeDialog"}) {
        QObject* dialog = object(name);
        ASSERT_TRUE(dialog) << name;
        QMetaObject::invokeMethod(dialog, "open");
        EXPECT_TRUE(eventually([&] { return dialog->property("opened").toBool(); })) << name;
        QMetaObject::invokeMethod(dialog, "close");
        eventually([&] { return !dialog->property("visible").toBool(); });
    }
    EXPECT_TRUE(warnings.isEmpty()) << warnings.join("\n").toStdString();
}

} // namespace
} // namespace tarn::test
