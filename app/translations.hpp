#pragma once

// The user's language: the app's own texts (translations/orbweave_<language>.ts,
// compiled to .qm by the build) and Qt's (its dialogs' buttons), both chosen by the
// locale. Texts the service or the logs see are never translated.

#include <QLocale>
#include <QString>

namespace orbweave::app {

/// Where the compiled translations are: share/orbweave/translations beside the program's
/// bin folder, installed or in the build tree.
QString translations_directory();

/// Installs Qt's and the app's translations for locale into the application, where they
/// exist (English needs none). Returns whether the app's own was found.
bool install_translations(const QLocale& locale, const QString& directory = translations_directory());

} // namespace orbweave::app
