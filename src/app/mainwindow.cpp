#include "app/mainwindow.h"

#include <QApplication>
#include <QMenuBar>
#include <QMessageBox>

#include "app/buildconfig.h"
#include "app/openexternal.h"
#include "ui/window/contentview.h"

namespace orvane {

MainWindow::MainWindow(QWidget* parent)
    : QMainWindow(parent)
    , m_content(new ContentView(this))
{
    setWindowTitle(tr("Orvane"));
    setCentralWidget(m_content);
    createMenus();
    resize(720, 540);
}

void MainWindow::createMenus()
{
    // No New Window command: one window, one queue.
    QMenu* file = menuBar()->addMenu(tr("&File"));
    QAction* open = file->addAction(tr("Open…"));
    open->setShortcut(QKeySequence::Open);
    connect(open, &QAction::triggered, m_content, &ContentView::openPanel);
    file->addSeparator();
    QAction* quit = file->addAction(tr("Quit"));
    quit->setShortcut(QKeySequence::Quit);
    quit->setMenuRole(QAction::QuitRole);
    connect(quit, &QAction::triggered, qApp, &QApplication::closeAllWindows);

    m_moreAppsMenu = menuBar()->addMenu(tr("&More Apps"));
    m_moreAppsMenu->setObjectName(QStringLiteral("moreAppsMenu"));

    m_helpMenu = menuBar()->addMenu(tr("&Help"));
    m_helpMenu->setObjectName(QStringLiteral("helpMenu"));
    QAction* help = m_helpMenu->addAction(tr("Orvane Help"));
    connect(help, &QAction::triggered, this, &MainWindow::showHelp);
    m_helpMenu->addSeparator();
    m_aboutAction = m_helpMenu->addAction(tr("About Orvane"));
    m_aboutAction->setMenuRole(QAction::AboutRole);
    connect(m_aboutAction, &QAction::triggered, this, &MainWindow::showAbout);
}

void MainWindow::showHelp()
{
    // A build without a usable help address opens nothing.
    openExternal(QString::fromUtf8(BuildConfig::helpUrl));
}

void MainWindow::showAbout()
{
    QMessageBox::about(this, tr("About Orvane"),
                       tr("<p><b>Orvane</b> %1</p><p>Trims the empty border off images.</p>")
                           .arg(QString::fromUtf8(BuildConfig::version).toHtmlEscaped()));
}

} // namespace orvane
