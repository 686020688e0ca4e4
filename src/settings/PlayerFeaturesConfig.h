#pragma once

#include "MultiSettings.h"
#include "halvistromcore_export.h"

#include <QList>
#include <QObject>
#include <QString>
#include <QStringList>

/// The player's tool bar (which actions, in which order) and its optional
/// features. The tool bar is stored under "player" / "toolbar" as an array
/// of action names; the enumerator names below are that file format.
class HALVISTROM_CORE_EXPORT PlayerFeaturesConfig : public QObject
{
    Q_OBJECT
public:
    enum class Feature {
        ROTATE = 0,
        PIXEL_PERFECT = 1,
        DEVELOPER = 2,
        CAPTURE = 3,
        BATTERY = 4,
        BIOMETRICS = 5,
        GAMEPAD = 6,
        GPS = 7,
        MEDIA_INJECTION = 8,
        MOTION_SENSORS = 9,
        CAMERA = 10,
        REMOTE_CONTROL = 11,
        ANDROID_CONTROLS = 12,
        AMBIENT_SENSORS = 13,
        IDENTIFIERS = 14,
        DISKIO = 15,
        NETWORK = 16,
        BASEBAND = 17,
        PHONE = 18,
        OPENGAPPS = 19,
        VOLUME = 20,
        BACK = 21,
        HOME = 22,
        OVERVIEW = 23,
        MENU = 24,
        POWER = 25,
        FOLD = 26,
    };
    Q_ENUM(Feature)

    enum ActionId {
        ROTATE_LEFT = 0,
        ROTATE_RIGHT = 1,
        PIXEL_PERFECT = 2,
        CAPTURE = 3,
        DEVELOPER = 4,
        ANDROID_CONTROLS = 5,
        BASEBAND = 6,
        BATTERY = 7,
        BIOMETRICS = 8,
        DISKIO = 9,
        GAMEPAD = 10,
        GPS = 11,
        DEVICE_ID = 12,
        MEDIA_INJECTION = 13,
        MOTION_SENSORS = 14,
        NETWORK = 15,
        PHONE = 16,
        BACK = 17,
        HOME = 18,
        OVERVIEW = 19,
        MENU = 20,
        POWER = 21,
        VOLUME_UP = 22,
        VOLUME_DOWN = 23,
        OPEN_GAPPS = 24,
        SETTINGS = 25,
        ADD_WIDGET = 26,
        AMBIENT_SENSORS = 27,
        FOLD = 28,
        REMOTE_CONTROL = 29,
        SCREENCAST = 30,
        SCREENSHOT = 31,
        SCREENSHOT_BROWSE = 32,
        SHOW_TOUCHES = 33,
        TOGGLE_FULLSCREEN = 34,
        TOGGLE_TOOLBAR = 35,
        UNKNOWN = 36,
    };
    Q_ENUM(ActionId)

    enum ActionCategory {
        WINDOW = 0,
        DEVICE = 1,
        HARDWARE_BUTTONS = 2,
        TOOLS = 3,
        SETTING_BUTTONS = 4,
        UNKNOWN_BUTTONS = 5,
    };
    Q_ENUM(ActionCategory)

    /// Reads the feature flags ("HV_FEATURE_FLAGS", colon-separated) and the
    /// tool bar (the user's, else the default one). settings is not owned.
    explicit PlayerFeaturesConfig(MultiSettings *settings, QObject *parent = nullptr);

    /// Experimental features need their flag: AMBIENT_SENSORS
    /// "ambientsensors", FOLD "foldabledisplay". Every other one is on.
    bool hasFeature(Feature feature) const;

    QList<ActionId> getToolBarActions() const;
    bool isActionInToolBar(ActionId action) const;
    /// The enumerator's name, the stored form ("SCREENSHOT").
    static QString getActionStrFromId(ActionId action);

    /// Appends the action unless it is there already (then nothing is written).
    void addActionFromToolbar(ActionId action);
    /// Removes every occurrence of the action and stores the tool bar.
    void removeActionFromToolbar(ActionId action);
    /// Moves moved to target's position (the others shift) and stores the
    /// tool bar; nothing happens unless both are on it and they differ.
    void moveActionInToolbar(ActionId moved, ActionId target);
    /// Puts the default tool bar into the user file and reloads it.
    void resetActionFromToolbar();

signals:
    void settingsChanged();

private:
    void loadToolBar();
    void storeToolBar();

    MultiSettings *m_settings;
    QStringList m_featureFlags;
    QList<ActionId> m_toolBar;
};
