#include "PlayerFeaturesConfig.h"

#include "EnvVars.h"
#include "MultiSettings.h"

#include <QMap>
#include <QMetaEnum>

namespace {

const QStringList kToolBarPath{QStringLiteral("player"), QStringLiteral("toolbar")};

/// The experimental features and the flag that switches each one on.
const QMap<PlayerFeaturesConfig::Feature, QString> &featureFlags()
{
    static const QMap<PlayerFeaturesConfig::Feature, QString> flags{
        {PlayerFeaturesConfig::Feature::AMBIENT_SENSORS, QStringLiteral("ambientsensors")},
        {PlayerFeaturesConfig::Feature::FOLD, QStringLiteral("foldabledisplay")},
    };
    return flags;
}

} // namespace

PlayerFeaturesConfig::PlayerFeaturesConfig(MultiSettings *settings, QObject *parent)
    : QObject(parent)
    , m_settings(settings)
    , m_featureFlags(EnvVars::getStringList("HV_FEATURE_FLAGS", QStringList(), QChar()))
{
    loadToolBar();
}

bool PlayerFeaturesConfig::hasFeature(Feature feature) const
{
    const auto flag = featureFlags().constFind(feature);
    if (flag == featureFlags().constEnd())
        return true;
    return m_featureFlags.contains(*flag);
}

QList<PlayerFeaturesConfig::ActionId> PlayerFeaturesConfig::getToolBarActions() const
{
    return m_toolBar;
}

bool PlayerFeaturesConfig::isActionInToolBar(ActionId action) const
{
    return m_toolBar.contains(action);
}

QString PlayerFeaturesConfig::getActionStrFromId(ActionId action)
{
    return QString::fromLatin1(QMetaEnum::fromType<ActionId>().valueToKey(action));
}

void PlayerFeaturesConfig::addActionFromToolbar(ActionId action)
{
    if (m_toolBar.contains(action))
        return;
    m_toolBar.append(action);
    storeToolBar();
}

void PlayerFeaturesConfig::removeActionFromToolbar(ActionId action)
{
    m_toolBar.removeAll(action);
    storeToolBar();
}

void PlayerFeaturesConfig::moveActionInToolbar(ActionId moved, ActionId target)
{
    const int from = m_toolBar.indexOf(moved);
    const int to = m_toolBar.indexOf(target);
    if (from < 0 || to < 0 || from == to)
        return;
    m_toolBar.move(from, to);
    storeToolBar();
}

void PlayerFeaturesConfig::resetActionFromToolbar()
{
    m_settings->setDefaultChildValue(kToolBarPath);
    loadToolBar();
}

void PlayerFeaturesConfig::loadToolBar()
{
    const QSharedPointer<JsonSettings> source = m_settings->getUserSettings()->childKeyExists(kToolBarPath)
        ? m_settings->getUserSettings()
        : m_settings->getDefaultSettings();
    m_toolBar = source->getEnumList<ActionId>(kToolBarPath);
}

void PlayerFeaturesConfig::storeToolBar()
{
    QStringList names;
    for (ActionId action : qAsConst(m_toolBar))
        names.append(getActionStrFromId(action));
    m_settings->getUserSettings()->setChildValue(kToolBarPath, names);
}
