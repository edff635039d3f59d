#pragma once

// velvox-desktop's windows: the dashboard (the activity feed, search and
// upload), a track's page, a user's page, search results and an upload.
// Each window keeps the tokens of what it started in its own SubscriptionSet,
// declared last, so that closing it stops its calls before anything their
// blocks use goes; errors and the offline state show in its status bar.

#include "CollectionModel.h"
#include "DesktopSession.h"
#include "PagedListView.h"
#include "Pictures.h"

#include <QLabel>
#include <QMainWindow>
#include <QPointer>
#include <QTextBrowser>
#include <QTimer>

#include <memory>
#include <vector>

class QLineEdit;
class QComboBox;
class QProgressBar;
class QPushButton;
class QTabWidget;

namespace velvox::desktop {

// What every window has: the session, a status bar for errors, and a count
// of the answers it received (so tests can tell that a closed window heard none).
class ClientWindow : public QMainWindow {
    Q_OBJECT
public:
    ClientWindow(DesktopSession&, QWidget* parent = nullptr);
    // Whether its data and pictures have arrived (what --screenshot waits for).
    virtual bool isReady() const = 0;
    // Answers delivered to this window, shared so that it outlives the window.
    std::shared_ptr<int> answerCounter() const { return m_answers; }
    void showError(const QString&);
    // Announces ready() once, when isReady() first holds.
    void checkReady();

signals:
    void ready();

protected:
    void heard() { ++*m_answers; }
    // First in every window's destructor: the widgets, lists and pictures go
    // while the window's SubscriptionSet still lives, so that nothing they do
    // as they go (a last layout asking for a picture) starts a call that the
    // set would not stop.
    void closeDown();
    DesktopSession& m_session;
    VXResourceController& m_store;

private:
    std::shared_ptr<int> m_answers { std::make_shared<int>(0) };
    bool m_announcedReady { false };
};

// Opens a window of its own for a track or a user (deleted when closed).
class TrackWindow;
class UserWindow;
TrackWindow* openTrackWindow(DesktopSession&, const QString& identifier);
UserWindow* openUserWindow(DesktopSession&, const QString& identifier);

class MainWindow final : public ClientWindow {
    Q_OBJECT
public:
    explicit MainWindow(DesktopSession&);
    ~MainWindow() override;
    bool isReady() const override;
    PagedListView* feedView() const { return m_feedView; }
    CollectionModel* feedModel() const { return m_feed; }
    QLabel* userLabel() const { return m_userLabel; }
    // Starts the dashboard once the user is signed in.
    void showSignedIn(VXUser*);

private:
    void openItem(const QModelIndex&);
    void search();
    void upload();
    QLabel* m_userLabel;
    QLineEdit* m_query;
    QComboBox* m_searchKind;
    PagedListView* m_feedView;
    Pictures* m_pictures;
    CollectionModel* m_feed { nullptr };
    SubscriptionSet m_calls;
    Subscription m_keptChanges;
    Subscription m_refusedChange;
};

// Draws the waveform with the timed comments at their places, and the
// position a comment is posted at; a click moves the position.
class WaveformWidget final : public QWidget {
    Q_OBJECT
public:
    WaveformWidget(Pictures&, QWidget* parent);
    void setTrack(VXTrack*);
    struct Marker {
        double seconds;
        QString text;
    };
    void setMarkers(std::vector<Marker>);
    const std::vector<Marker>& markers() const { return m_markers; }
    double position() const { return m_position; }
    void setPosition(double seconds);
    // Where a time is drawn, in the widget's coordinates.
    int xForSeconds(double) const;
    QSize sizeHint() const override { return { 600, 90 }; }

signals:
    void positionChanged(double seconds);

protected:
    void paintEvent(QPaintEvent*) override;
    void mousePressEvent(QMouseEvent*) override;
    bool event(QEvent*) override;

private:
    double duration() const;
    Pictures& m_pictures;
    RefPtr<VXTrack> m_track;
    std::vector<Marker> m_markers;
    double m_position { 0 };
};

// A QTextBrowser that takes the page's pictures ("zu-image" addresses, as
// the template filter writes them) from the image cache.
class PageBrowser final : public QTextBrowser {
    Q_OBJECT
public:
    PageBrowser(Pictures&, QWidget* parent);
    QVariant loadResource(int type, const QUrl&) override;

private:
    Pictures& m_pictures;
};

class TrackWindow final : public ClientWindow {
    Q_OBJECT
public:
    TrackWindow(DesktopSession&, const QString& identifier);
    ~TrackWindow() override;
    bool isReady() const override;
    VXTrack* track() const { return m_track.get(); }
    QPushButton* playButton() const { return m_play; }
    QPushButton* favoriteButton() const { return m_favorite; }
    WaveformWidget* waveform() const { return m_waveform; }
    PageBrowser* page() const { return m_page; }
    CollectionModel* comments() const { return m_comments; }
    QLineEdit* commentBox() const { return m_commentBox; }
    void play();
    void postComment();

private:
    void showTrack(VXTrack*);
    void render();
    void updateControls();
    QString m_identifier;
    RefPtr<VXTrack> m_track;
    Pictures* m_pictures;
    PageBrowser* m_page;
    WaveformWidget* m_waveform;
    QPushButton* m_play;
    QPushButton* m_favorite;
    QLabel* m_position;
    QLineEdit* m_commentBox;
    QPushButton* m_post;
    PagedListView* m_commentView;
    CollectionModel* m_comments;
    QTimer m_playing;
    QTimer m_renderSoon;
    std::vector<Subscription> m_observers;
    SubscriptionSet m_calls;
};

class UserWindow final : public ClientWindow {
    Q_OBJECT
public:
    UserWindow(DesktopSession&, const QString& identifier);
    ~UserWindow() override;
    bool isReady() const override;
    VXUser* user() const { return m_user.get(); }
    QPushButton* followButton() const { return m_follow; }
    CollectionModel* tracks() const { return m_lists[0]; }
    CollectionModel* followers() const { return m_lists[1]; }
    CollectionModel* followings() const { return m_lists[2]; }
    void toggleFollow();

private:
    void showUser(VXUser*);
    void updateProfile();
    void updateFollowButton();
    QString m_identifier;
    RefPtr<VXUser> m_user;
    Pictures* m_pictures;
    QLabel* m_avatar;
    QLabel* m_name;
    QLabel* m_details;
    QPushButton* m_follow;
    QTabWidget* m_tabs;
    CollectionModel* m_lists[3] {};
    std::vector<Subscription> m_observers;
    SubscriptionSet m_calls;
};

class SearchWindow final : public ClientWindow {
    Q_OBJECT
public:
    SearchWindow(DesktopSession&, const QString& query, bool users);
    ~SearchWindow() override;
    bool isReady() const override;
    CollectionModel* results() const { return m_results; }

private:
    Pictures* m_pictures;
    PagedListView* m_view;
    CollectionModel* m_results;
    SubscriptionSet m_calls;
};

class UploadWindow final : public ClientWindow {
    Q_OBJECT
public:
    explicit UploadWindow(DesktopSession&, const QString& path = {});
    ~UploadWindow() override;
    bool isReady() const override;
    QProgressBar* progressBar() const { return m_progress; }
    QLabel* stateLabel() const { return m_state; }
    QLineEdit* titleBox() const { return m_title; }
    VXTrack* track() const { return m_track.get(); }
    // The highest progress shown, from 0 to 100.
    int highestProgress() const { return m_highest; }
    void start();

signals:
    void processed();

private:
    void uploaded(Object* answer, Error*);
    void showState();
    QLineEdit* m_path;
    QLineEdit* m_title;
    QPushButton* m_send;
    QProgressBar* m_progress;
    QLabel* m_state;
    RefPtr<VXTrack> m_track;
    Subscription m_stateObserver;
    QMetaObject::Connection m_sending;
    int m_highest { 0 };
    SubscriptionSet m_calls;
};

} // namespace velvox::desktop
