#include "ui/helper/HelperWindows.h"

#include <QApplication>
#include <QCloseEvent>
#include <QComboBox>
#include <QCursor>
#include <QDialog>
#include <QFormLayout>
#include <QHBoxLayout>
#include <QKeyEvent>
#include <QLabel>
#include <QMessageBox>
#include <QPixmap>
#include <QProgressBar>
#include <QPushButton>
#include <QScreen>
#include <QSocketNotifier>
#include <QStandardItemModel>
#include <QTimer>
#include <QVBoxLayout>

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <vector>

namespace zentary {

namespace {

QString qt(const std::string& text)
{
    return QString::fromUtf8(text.data(), static_cast<qsizetype>(text.size()));
}

std::string utf8(const QString& text)
{
    return text.toUtf8().toStdString();
}

// A top-level window whose close box asks instead of closing: the data
// source decides when its windows go away.
class Window : public QWidget {
public:
    std::function<void()> onClose;

protected:
    void closeEvent(QCloseEvent* event) override
    {
        event->ignore();
        if (onClose) onClose();
    }
};

// The settings dialog: a dialog as the desktop knows one. Return presses the
// default button (also from a closed menu, which passes the key on), and
// Escape and the close box mean Cancel. The data source still decides when
// it goes away, so nothing here hides it.
class DialogWindow : public QDialog {
public:
    std::function<void()> onCancel;

    void reject() override
    {
        if (onCancel) onCancel();
    }

protected:
    void closeEvent(QCloseEvent* event) override
    {
        event->ignore();
        reject();
    }
};

// An alert whose close box presses its Escape button, as a click, so that
// the answer goes back like any other; without one the close box does nothing.
class AlertBox : public QMessageBox {
protected:
    void closeEvent(QCloseEvent* event) override
    {
        event->ignore();
        if (QAbstractButton* button = escapeButton(); button && button->isVisible()) button->click();
    }
};

// Puts a window in the middle of the screen that holds the pointer (the
// primary screen when none does), without window manager as with one. A
// window larger than the screen keeps its top left corner on it.
void centre(QWidget* window)
{
    QScreen* screen = QGuiApplication::screenAt(QCursor::pos());
    if (!screen) screen = QGuiApplication::primaryScreen();
    if (!screen) return;
    QRect area = screen->availableGeometry();
    QSize size = window->frameGeometry().size();
    int x = area.x() + std::max(0, (area.width() - size.width()) / 2);
    int y = area.y() + std::max(0, (area.height() - size.height()) / 2);
    window->move(x, y);
}

// "Image type:" -> "Image type": what a screen reader should call the control
// the label names, in any language's punctuation.
QString withoutColon(QString text)
{
    text = text.trimmed();
    while (!text.isEmpty() && (text.endsWith(':') || text.endsWith(QChar(0xFF1A)) || text.back().isSpace()))
        text.chop(1);
    return text;
}

// Whether everything `widget` has to show fits in the room it was given.
bool fits(QWidget* widget)
{
    if (auto* label = qobject_cast<QLabel*>(widget)) {
        QRect room = label->contentsRect();
        if (label->wordWrap()) return label->heightForWidth(label->width()) <= label->height();
        QSize text = label->fontMetrics().size(0, label->text());
        return text.width() <= room.width() && text.height() <= room.height();
    }
    if (qobject_cast<QAbstractButton*>(widget) || qobject_cast<QComboBox*>(widget)) {
        QSize need = widget->sizeHint();
        return need.width() <= widget->width() && need.height() <= widget->height();
    }
    return true;
}

const char* iconName(QMessageBox::Icon icon)
{
    switch (icon) {
    case QMessageBox::Information: return "information";
    case QMessageBox::Warning: return "warning";
    case QMessageBox::Critical: return "critical";
    case QMessageBox::Question: return "question";
    default: return "none";
    }
}

QMessageBox::Icon iconOf(const std::string& name, bool systemModal)
{
    if (name == "information") return QMessageBox::Information;
    if (name == "critical") return QMessageBox::Critical;
    if (name == "question") return QMessageBox::Question;
    if (name == "warning" || systemModal) return QMessageBox::Warning;
    return QMessageBox::Information;
}

// Puts `items` in `menu`, greys out `disabled`, selects `selected`.
void fillMenu(QComboBox* menu, const std::vector<std::string>& items, const std::vector<std::string>& disabled,
              const std::string& selected)
{
    menu->clear();
    for (const std::string& item : items) menu->addItem(qt(item));
    if (auto* model = qobject_cast<QStandardItemModel*>(menu->model())) {
        for (int row = 0; row < model->rowCount(); ++row) {
            bool off = std::find(disabled.begin(), disabled.end(), items[static_cast<std::size_t>(row)]) != disabled.end();
            model->item(row)->setEnabled(!off);
        }
    }
    menu->setCurrentIndex(menu->findText(qt(selected)));
}

// One widget of a window as a flat JSON object, for the tests' checks.
std::string describe(const std::string& window, QWidget* widget)
{
    UiMessage entry;
    entry.set("window", window)
        .set("name", utf8(widget->objectName()))
        .set("class", widget->metaObject()->className())
        .set("enabled", widget->isEnabled())
        .set("visible", widget->isVisible());
    if (auto* label = qobject_cast<QLabel*>(widget)) entry.set("text", utf8(label->text()));
    if (auto* button = qobject_cast<QAbstractButton*>(widget)) entry.set("text", utf8(button->text()));
    if (auto* bar = qobject_cast<QProgressBar*>(widget)) {
        entry.set("value", bar->value()).set("minimum", bar->minimum()).set("maximum", bar->maximum());
    }
    if (auto* menu = qobject_cast<QComboBox*>(widget)) {
        std::vector<std::string> items, disabled;
        auto* model = qobject_cast<QStandardItemModel*>(menu->model());
        for (int row = 0; row < menu->count(); ++row) {
            items.push_back(utf8(menu->itemText(row)));
            if (model && !model->item(row)->isEnabled()) disabled.push_back(items.back());
        }
        entry.set("text", utf8(menu->currentText())).set("items", items).set("disabledItems", disabled);
    }
    if (auto* button = qobject_cast<QPushButton*>(widget)) entry.set("default", button->isDefault());
    // Where it is and whether its text fits: windows on the screen, the rest
    // within their window.
    entry.set("accessibleName", utf8(widget->accessibleName()));
    if (!widget->isWindow()) {
        QRect place(widget->mapTo(widget->window(), QPoint(0, 0)), widget->size());
        entry.set("whole", fits(widget) && widget->window()->rect().contains(place));
    } else {
        QRect place = widget->frameGeometry();
        QRect area = widget->screen() ? widget->screen()->availableGeometry() : QRect();
        QPoint off = place.center() - area.center();
        entry.set("title", utf8(widget->windowTitle()))
            .set("hasIcon", !widget->windowIcon().isNull())
            .set("fixedSize", widget->minimumSize() == widget->maximumSize())
            .set("onScreen", area.contains(place))
            .set("centred", std::abs(off.x()) <= 1 && std::abs(off.y()) <= 1);
        if (auto* box = qobject_cast<QMessageBox*>(widget)) entry.set("icon", iconName(box->icon()));
    }
    return entry.encode();
}

}  // namespace

HelperWindows::HelperWindows(int fd, bool testing) : mFd(fd), mTesting(testing)
{
    if (const char* dir = std::getenv("ZENTARY_UI_AUTOPILOT")) mAutopilot = QString::fromUtf8(dir);
    if (const char* cancel = std::getenv("ZENTARY_UI_AUTOPILOT_CANCEL")) mAutopilotCancel = QString::fromUtf8(cancel);
    mNotifier = new QSocketNotifier(fd, QSocketNotifier::Read);
    QObject::connect(mNotifier, &QSocketNotifier::activated, [this] { readable(); });
}

HelperWindows::~HelperWindows()
{
    delete mNotifier;
    for (auto& [id, box] : mAlerts) delete box.data();
    delete mDialog.data();
    delete mProgress.data();
}

void HelperWindows::send(const UiMessage& message)
{
    std::string line = message.encode() + "\n";
    std::size_t done = 0;
    while (done < line.size()) {
        ssize_t sent = ::send(mFd, line.data() + done, line.size() - done, MSG_NOSIGNAL);
        if (sent < 0 && errno == EINTR) continue;
        if (sent <= 0) {
            QApplication::exit(0);  // the data source is gone
            return;
        }
        done += static_cast<std::size_t>(sent);
    }
}

void HelperWindows::readable()
{
    char buffer[16384];
    ssize_t got = ::read(mFd, buffer, sizeof buffer);
    if (got < 0 && (errno == EINTR || errno == EAGAIN)) return;
    if (got <= 0) {
        mNotifier->setEnabled(false);
        QApplication::exit(0);
        return;
    }
    mLines.append(std::string_view(buffer, static_cast<std::size_t>(got)));
    for (std::size_t dropped = mLines.takeDropped(); dropped; --dropped)
        std::fprintf(stderr, "zentary-ui: dropped an overlong line\n");
    while (std::optional<std::string> line = mLines.next()) {
        std::string error;
        std::optional<UiMessage> message = UiMessage::decode(*line, &error);
        if (!message) {
            std::fprintf(stderr, "zentary-ui: dropped a malformed line (%s)\n", error.c_str());
            continue;
        }
        handle(*message);
    }
}

void HelperWindows::handle(const UiMessage& message)
{
    std::string type = message.type();
    if (type == "hello") {
        if (message.integer("version").value_or(0) != kUiProtocolVersion)
            std::fprintf(stderr, "zentary-ui: the data source speaks another protocol version\n");
        send(UiMessage("hello").set("version", kUiProtocolVersion).set("pid", static_cast<std::int64_t>(::getpid())));
    } else if (type == "dialog.show" || type == "dialog.update") {
        showDialog(message, type == "dialog.show");
    } else if (type == "dialog.close") {
        if (mDialog) mDialog->hide();
    } else if (type == "progress.show" || type == "progress.update") {
        showProgress(message, type == "progress.show");
    } else if (type == "progress.close") {
        if (mProgress) mProgress->hide();
    } else if (type == "alert") {
        showAlert(message);
    } else if (type == "alert.close") {
        closeAlert(message.integer("id").value_or(0));
    } else if (mTesting && type.rfind("test.", 0) == 0) {
        test(message);
    }
    // Anything else comes from a newer data source; not ours to judge.
}

void HelperWindows::buildDialog()
{
    auto* window = new DialogWindow();
    window->setObjectName("dialog");
    window->onCancel = [this] { send(UiMessage("dialog.cancel")); };
    mImageTypeLabel = new QLabel(window);
    mImageTypeLabel->setObjectName("imageTypeLabel");
    mResolutionLabel = new QLabel(window);
    mResolutionLabel->setObjectName("resolutionLabel");
    mImageType = new QComboBox(window);
    mImageType->setObjectName("imageType");
    mResolution = new QComboBox(window);
    mResolution->setObjectName("resolution");
    mScan = new QPushButton(window);
    mScan->setObjectName("scan");
    mScan->setDefault(true);
    mCancel = new QPushButton(window);
    mCancel->setObjectName("cancel");
    mImageTypeLabel->setBuddy(mImageType);
    mResolutionLabel->setBuddy(mResolution);

    auto* form = new QFormLayout();
    form->addRow(mImageTypeLabel, mImageType);
    form->addRow(mResolutionLabel, mResolution);
    auto* buttons = new QHBoxLayout();
    buttons->addStretch();
    buttons->addWidget(mCancel);
    buttons->addWidget(mScan);
    auto* layout = new QVBoxLayout(window);
    layout->addLayout(form);
    layout->addLayout(buttons);
    // As large as its texts need, in every language, and no larger.
    layout->setSizeConstraint(QLayout::SetFixedSize);

    QObject::connect(mImageType, &QComboBox::activated, [this] { chosen(mImageType, "dialog.imageType"); });
    QObject::connect(mResolution, &QComboBox::activated, [this] { chosen(mResolution, "dialog.resolution"); });
    QObject::connect(mScan, &QPushButton::clicked, [this] { send(UiMessage("dialog.scan")); });
    QObject::connect(mCancel, &QPushButton::clicked, [this] { send(UiMessage("dialog.cancel")); });
    mDialog = window;
}

void HelperWindows::chosen(QComboBox* menu, const char* type)
{
    if (mApplying) return;
    send(UiMessage(type).set("value", utf8(menu->currentText())));
}

void HelperWindows::showDialog(const UiMessage& message, bool show)
{
    if (!mDialog) buildDialog();
    mApplying = true;
    std::vector<std::string> keys = message.strings("labelKeys").value_or(std::vector<std::string>());
    std::vector<std::string> texts = message.strings("labelTexts").value_or(std::vector<std::string>());
    auto label = [&](const char* key, const char* fallback) {
        for (std::size_t i = 0; i < keys.size() && i < texts.size(); ++i)
            if (keys[i] == key) return qt(texts[i]);
        return QString::fromUtf8(fallback);
    };
    mDialog->setWindowTitle(label("title", "Scan"));
    mImageTypeLabel->setText(label("imageType", "Image type:"));
    mResolutionLabel->setText(label("resolution", "Resolution:"));
    mScan->setText(label("scan", "Scan"));
    mCancel->setText(label("cancel", "Cancel"));
    mImageType->setAccessibleName(withoutColon(mImageTypeLabel->text()));
    mResolution->setAccessibleName(withoutColon(mResolutionLabel->text()));
    mScan->setAccessibleName(mScan->text());
    mCancel->setAccessibleName(mCancel->text());
    auto none = std::vector<std::string>();
    fillMenu(mImageType, message.strings("imageTypes").value_or(none), message.strings("disabledImageTypes").value_or(none),
             message.string("imageType").value_or(""));
    fillMenu(mResolution, message.strings("resolutions").value_or(none), none, message.string("resolution").value_or(""));
    // Nothing to choose from: a menu with no items is greyed out.
    mImageType->setEnabled(mImageType->count() > 0);
    mResolution->setEnabled(mResolution->count() > 0);
    mApplying = false;
    if (show) {
        mDialog->adjustSize();
        centre(mDialog);
        mDialog->show();
        centre(mDialog);  // again, now that the frame around it is known
        mDialog->raise();
        mDialog->activateWindow();
        autopilot(mDialog, "dialog", mAutopilotCancel == "dialog" ? mCancel : mScan);
    }
}

void HelperWindows::autopilot(QWidget* window, const QString& name, QAbstractButton* press)
{
    if (mAutopilot.isEmpty() || !window) return;
    QString path = QString("%1/%2-%3.png").arg(mAutopilot, name).arg(++mShots, 2, 10, QChar('0'));
    QPointer<QWidget> target(window);
    QPointer<QAbstractButton> button(press);
    // A moment later, as a person would: the window has been laid out.
    bool stays = button && button == mProgressCancel;
    QTimer::singleShot(300, [target, button, path, stays] {
        if (!target || !target->isVisible()) return;
        target->grab().save(path, "PNG");
        if (!button || !button->isEnabled()) return;
        button->click();
        // The progress window stays after Cancel until it is closed: it is
        // kept as it then looks, too.
        if (!stays || !target || !target->isVisible()) return;
        if (target->layout()) target->layout()->activate();
        QString after = path;
        target->grab().save(after.replace(".png", "-pressed.png"), "PNG");
    });
}

void HelperWindows::buildProgress()
{
    auto* window = new Window();
    window->setObjectName("progress");
    mMessage = new QLabel(window);
    mMessage->setObjectName("message");
    mBar = new QProgressBar(window);
    mBar->setObjectName("bar");
    mBar->setRange(0, 1000);  // the model's 0..1, in steps fine enough to look smooth
    mBar->setTextVisible(false);
    mBar->setMinimumWidth(320);
    mProgressCancel = new QPushButton(window);
    mProgressCancel->setObjectName("cancel");
    auto* buttons = new QHBoxLayout();
    buttons->addStretch();
    buttons->addWidget(mProgressCancel);
    auto* layout = new QVBoxLayout(window);
    layout->addWidget(mMessage);
    layout->addWidget(mBar);
    layout->addLayout(buttons);
    layout->setSizeConstraint(QLayout::SetFixedSize);
    QObject::connect(mProgressCancel, &QPushButton::clicked, [this] {
        // Taken at once, before the data source answers: a second press
        // has nothing left to do.
        cancelled();
        send(UiMessage("progress.cancel"));
    });
    mProgress = window;
}

void HelperWindows::showProgress(const UiMessage& message, bool show)
{
    if (!mProgress) buildProgress();
    // A window shown anew (a restarted helper replays the last state) starts
    // from a live Cancel; the state below says whether it was taken.
    if (show) mProgressCancel->setEnabled(true);
    if (auto title = message.string("title")) mProgress->setWindowTitle(qt(*title));
    if (auto cancel = message.string("cancel")) {
        mProgressCancel->setText(qt(*cancel));
        mProgressCancel->setAccessibleName(mProgressCancel->text());
    }
    if (auto messages = message.strings("messages")) {
        // Room for the longest message, so the window keeps its size.
        int widest = 0;
        for (const std::string& text : *messages)
            widest = std::max(widest, mMessage->fontMetrics().horizontalAdvance(qt(text)));
        mMessage->setMinimumWidth(widest);
    }
    if (auto text = message.string("cancelling")) mCancellingText = qt(*text);
    if (auto text = message.string("message")) mMessage->setText(qt(*text));
    if (message.boolean("cancelled").value_or(false)) cancelled();
    if (!message.boolean("sampled").value_or(true)) {
        // No value yet: busy, not an empty bar that looks stuck.
        mBar->setRange(0, 0);
    } else if (auto value = message.number("progress")) {
        // The scanner's fraction is passed on unchecked; the bar cannot show
        // more than full or less than empty.
        double fraction = std::isfinite(*value) ? std::clamp(*value, 0.0, 1.0) : 0.0;
        mBar->setRange(0, 1000);
        mBar->setValue(static_cast<int>(std::lround(fraction * 1000)));
    }
    if (show) {
        mProgress->adjustSize();
        centre(mProgress);
        mProgress->show();
        centre(mProgress);  // again, now that the frame around it is known
        mProgress->raise();
    }
    if (show || message.number("progress"))
        autopilot(mProgress, "progress", mAutopilotCancel == "progress" ? mProgressCancel : nullptr);
}

void HelperWindows::cancelled()
{
    mProgressCancel->setEnabled(false);
    mMessage->setText(mCancellingText.isEmpty() ? QStringLiteral("Cancelling...") : mCancellingText);
}

void HelperWindows::showAlert(const UiMessage& message)
{
    std::int64_t id = message.integer("id").value_or(0);
    closeAlert(id);
    bool systemModal = message.boolean("systemModal").value_or(false);
    auto* box = new AlertBox();
    box->setObjectName(systemModal ? "systemAlert" : "alert");
    box->setIcon(iconOf(message.string("icon").value_or(""), systemModal));
    box->setWindowTitle(qt(message.string("title").value_or("")));
    box->setText(qt(message.string("message").value_or("")));
    std::string informative = message.string("informative").value_or("");
    if (!informative.empty()) box->setInformativeText(qt(informative));
    std::vector<std::string> titles = message.strings("buttons").value_or(std::vector<std::string>());
    if (titles.size() > 3) titles.resize(3);
    if (titles.empty()) titles.push_back("OK");
    std::int64_t cancel = message.integer("cancelButton").value_or(-1);
    for (std::size_t i = 0; i < titles.size(); ++i) {
        bool isCancel = cancel == static_cast<std::int64_t>(i);
        QMessageBox::ButtonRole role = i == 0 ? QMessageBox::AcceptRole
                                       : isCancel ? QMessageBox::RejectRole
                                                  : QMessageBox::ActionRole;
        QPushButton* button = box->addButton(qt(titles[i]), role);
        button->setObjectName(QString("button%1").arg(i + 1));
        if (i == 0) box->setDefaultButton(button);
        // Escape (and the close box) answers Cancel; a lone button is both.
        if (isCancel || titles.size() == 1) box->setEscapeButton(button);
        QObject::connect(button, &QPushButton::clicked, [this, id, i] {
            send(UiMessage("alert.answer").set("id", id).set("button", static_cast<std::int64_t>(1000 + i)));
            closeAlert(id);
        });
    }
    // Both kinds block the whole helper; the system kind also stays on top,
    // the nearest a window toolkit gets to a system-modal notification.
    box->setWindowModality(Qt::ApplicationModal);
    if (systemModal) box->setWindowFlag(Qt::WindowStaysOnTopHint);
    mAlerts[id] = box;
    box->show();
    centre(box);  // its size is known once it is shown
    autopilot(box, systemModal ? "system-alert" : "alert", box->defaultButton());
}

void HelperWindows::closeAlert(std::int64_t id)
{
    auto it = mAlerts.find(id);
    if (it == mAlerts.end()) return;
    if (it->second) {
        it->second->hide();
        it->second->deleteLater();
    }
    mAlerts.erase(it);
}

QWidget* HelperWindows::window(const std::string& name, std::int64_t alertId)
{
    if (name == "dialog") return mDialog;
    if (name == "progress") return mProgress;
    if (name == "alert") {
        auto it = alertId ? mAlerts.find(alertId) : (mAlerts.empty() ? mAlerts.end() : std::prev(mAlerts.end()));
        return it == mAlerts.end() ? nullptr : it->second.data();
    }
    return nullptr;
}

void HelperWindows::test(const UiMessage& message)
{
    std::string type = message.type();
    std::string name = message.string("window").value_or("");
    QWidget* target = window(name, message.integer("alertId").value_or(0));
    UiMessage reply(type);
    reply.set("id", message.integer("id").value_or(0));
    bool ok = false;
    if (type == "test.press" && target && target->isVisible()) {
        // As the user would: through the widgets, so disabled ones refuse.
        std::string control = message.string("control").value_or("");
        QComboBox* menu = control == "imageType" ? mImageType : control == "resolution" ? mResolution : nullptr;
        if (menu && target == mDialog) {
            int row = menu->findText(qt(message.string("value").value_or("")));
            auto* model = qobject_cast<QStandardItemModel*>(menu->model());
            if (row >= 0 && menu->isEnabled() && model && model->item(row)->isEnabled()) {
                menu->setCurrentIndex(row);
                emit menu->activated(row);
                ok = true;
            }
        } else if (auto* button = target->findChild<QAbstractButton*>(qt(control))) {
            if (button->isEnabled() && button->isVisible()) {
                button->click();
                ok = true;
            }
        }
    } else if ((type == "test.key" || type == "test.close") && target && target->isVisible()) {
        // A key as the keyboard delivers it to the control that has the focus
        // (`control`, or the window), passed on to the window when the
        // control does not want it.
        if (type == "test.close") {
            target->close();
        } else {
            std::string control = message.string("control").value_or("");
            QWidget* receiver = control.empty() ? target : target->findChild<QWidget*>(qt(control));
            int key = message.string("key") == "Escape" ? Qt::Key_Escape : Qt::Key_Return;
            if (receiver) {
                QKeyEvent press(QEvent::KeyPress, key, Qt::NoModifier);
                QKeyEvent release(QEvent::KeyRelease, key, Qt::NoModifier);
                QApplication::sendEvent(receiver, &press);
                QApplication::sendEvent(receiver, &release);
            }
        }
        ok = true;
    } else if (type == "test.snapshot" && target && target->isVisible()) {
        std::vector<std::string> widgets{describe(name, target)};
        for (QWidget* child : target->findChildren<QWidget*>())
            if (qobject_cast<QLabel*>(child) || qobject_cast<QAbstractButton*>(child) ||
                qobject_cast<QComboBox*>(child) || qobject_cast<QProgressBar*>(child))
                widgets.push_back(describe(name, child));
        reply.set("widgets", widgets);
        std::string path = message.string("path").value_or("");
        ok = path.empty() || target->grab().save(qt(path), "PNG");
    } else if (type == "test.windows") {
        std::vector<std::string> shown;
        if (mDialog && mDialog->isVisible()) shown.push_back("dialog");
        if (mProgress && mProgress->isVisible()) shown.push_back("progress");
        for (auto& [id, box] : mAlerts)
            if (box && box->isVisible()) shown.push_back("alert:" + std::to_string(id));
        reply.set("windows", shown);
        ok = true;
    }
    reply.set("ok", ok);
    send(reply);
}

}  // namespace zentary
