#include "ui/permission_dialog.hpp"

#include <QMessageBox>
#include <QPushButton>

#include <memory>

namespace orbweave::ui {

void ask_with_dialog(const app::prompt_text& text, std::function<void(bool)> answer)
{
    auto* dialog = new QMessageBox(QMessageBox::Question, text.title, text.name, QMessageBox::NoButton);
    dialog->setObjectName("permissionDialog");
    // Names come from other programs (a window title is whatever its program says).
    dialog->setTextFormat(Qt::PlainText);
    dialog->setInformativeText(text.description);
    dialog->setAttribute(Qt::WA_DeleteOnClose);
    dialog->setWindowModality(Qt::NonModal);
    QPushButton* allow = dialog->addButton(QObject::tr("Allow"), QMessageBox::AcceptRole);
    dialog->addButton(QObject::tr("Deny"), QMessageBox::RejectRole);
    dialog->setEscapeButton(QMessageBox::NoButton);
    auto once = std::make_shared<std::function<void(bool)>>(std::move(answer));
    QObject::connect(dialog, &QMessageBox::finished, dialog, [dialog, allow, once] {
        // Any way of closing it but Allow refuses.
        if (auto answer = std::exchange(*once, nullptr))
            answer(dialog->clickedButton() == allow);
    });
    dialog->show();
}

} // namespace orbweave::ui
