// The windows of zentary-ui and the conversation with the data source.
//
// Everything shown is what the data source last said; everything the user
// does is sent back and changes nothing here until the data source answers
// with new values. That keeps the models in one place, the data source.
#pragma once

#include <QPointer>
#include <QWidget>

#include <cstdint>
#include <map>
#include <string>

#include "ui/UiProtocol.h"

class QAbstractButton;
class QComboBox;
class QLabel;
class QMessageBox;
class QProgressBar;
class QPushButton;
class QSocketNotifier;

namespace zentary {

class HelperWindows {
public:
    // `fd` is our end of the socket; `testing` accepts the test messages
    // (pressing buttons, grabbing windows).
    HelperWindows(int fd, bool testing);
    ~HelperWindows();

    void send(const UiMessage& message);

private:
    void readable();
    void handle(const UiMessage& message);
    void showDialog(const UiMessage& message, bool show);
    void showProgress(const UiMessage& message, bool show);
    void showAlert(const UiMessage& message);
    // Shows that Cancel was taken: the button greyed, the cancelling text.
    void cancelled();
    void closeAlert(std::int64_t id);
    void test(const UiMessage& message);
    QWidget* window(const std::string& name, std::int64_t alertId);
    void buildDialog();
    void buildProgress();
    void chosen(QComboBox* menu, const char* type);
    // With ZENTARY_UI_AUTOPILOT=<directory>, a stand-in user: each window
    // shown is grabbed to <directory>/<name>-<n>.png and then answered by
    // pressing `press` (Scan in the dialog, the default button of an
    // alert), so that whole acquisitions run with the real windows and leave
    // pictures of them behind. ZENTARY_UI_AUTOPILOT_CANCEL=dialog or
    // progress makes it press Cancel in that window instead.
    void autopilot(QWidget* window, const QString& name, QAbstractButton* press);

    int mFd;
    bool mTesting;
    QString mAutopilot;
    QString mAutopilotCancel;
    int mShots = 0;
    QSocketNotifier* mNotifier = nullptr;
    UiLineBuffer mLines;
    bool mApplying = false;  // values from the data source, not the user

    QPointer<QWidget> mDialog;
    QLabel* mImageTypeLabel = nullptr;
    QLabel* mResolutionLabel = nullptr;
    QComboBox* mImageType = nullptr;
    QComboBox* mResolution = nullptr;
    QPushButton* mScan = nullptr;
    QPushButton* mCancel = nullptr;

    QPointer<QWidget> mProgress;
    QLabel* mMessage = nullptr;
    QProgressBar* mBar = nullptr;
    QPushButton* mProgressCancel = nullptr;
    QString mCancellingText;

    std::map<std::int64_t, QPointer<QMessageBox>> mAlerts;
};

}  // namespace zentary
