#include "ui/permission_dialog.hpp"

#include "ui/popup.hpp"

#include <QCoreApplication>
#include <QGridLayout>
#include <QMessageBox>
#include <QPushButton>

#include <memory>

namespace orbweave::ui {

namespace {
}

void ask_with_dialog(const app::prompt_text& text, std::function<void(bool)> answer)
{
    auto* dialog = new QMessageBox(QMessageBox::Question, text.title, text.request(), QMessageBox::NoButton);
    dialog->setObjectName("permissionDialog");
    // Names and descriptions come from other programs (a window title is whatever its
    // program says), so they stand in the plain-text part; the informative text, which
    // Qt may read as markup, is only ours.
    dialog->setTextFormat(Qt::PlainText);
    dialog->setInformativeText(app::prompt_text::live() + "\n" +
                               QCoreApplication::translate("orbweave::ui::permission_dialog", "Allow it?"));
    dialog->setAttribute(Qt::WA_DeleteOnClose);
    dialog->setWindowModality(Qt::NonModal);
    QPushButton* allow = dialog->addButton(QCoreApplication::translate("orbweave::ui::permission_dialog", "Allow"), QMessageBox::AcceptRole);
    dialog->addButton(QCoreApplication::translate("orbweave::ui::permission_dialog", "Deny"), QMessageBox::RejectRole);
    dialog->setEscapeButton(QMessageBox::NoButton);
    // Wide enough that the question reads on one line: a message box takes its width
    // from its contents only.
    if (auto* grid = qobject_cast<QGridLayout*>(dialog->layout()))
        grid->addItem(new QSpacerItem(380, 0, QSizePolicy::Minimum, QSizePolicy::Fixed), grid->rowCount(), 0, 1,
                      grid->columnCount());
    auto once = std::make_shared<std::function<void(bool)>>(std::move(answer));
    QObject::connect(dialog, &QMessageBox::finished, dialog, [dialog, allow, once] {
        // Any way of closing it but Allow refuses.
        if (auto answer = std::exchange(*once, nullptr))
            answer(dialog->clickedButton() == allow);
    });
    // A question about a capture, not a window of the app's own: it stays out of the task bar.
    keep_out_of_task_bar(dialog);
    dialog->show();
}

} // namespace orbweave::ui
