#include "app/translations.hpp"

#include "core/log.hpp"

#include <QCoreApplication>
#include <QLibraryInfo>
#include <QTranslator>

namespace orbweave::app {

QString translations_directory()
{
    return QCoreApplication::applicationDirPath() + "/../share/orbweave/translations";
}

bool install_translations(const QLocale& locale, const QString& directory)
{
    // Owned by the application, so they live as long as the texts they translate.
    auto* qt_texts = new QTranslator(QCoreApplication::instance());
    if (qt_texts->load(locale, "qtbase", "_", QLibraryInfo::path(QLibraryInfo::TranslationsPath)))
        QCoreApplication::installTranslator(qt_texts);
    else
        delete qt_texts;
    auto* ours = new QTranslator(QCoreApplication::instance());
    if (ours->load(locale, "orbweave", "_", directory)) {
        QCoreApplication::installTranslator(ours);
        return true;
    }
    delete ours;
    if (locale.language() != QLocale::English && locale.language() != QLocale::C)
        log::line("No translation for " + locale.name().toStdString() + "; the app speaks English");
    return false;
}

} // namespace orbweave::app
