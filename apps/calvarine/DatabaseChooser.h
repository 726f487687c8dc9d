#pragma once

#include <string>

#include <QDialog>

class QLineEdit;
class QPushButton;

// What "Ouvrir une autre base…" asks: the database to open next, a file typed
// or found with "Parcourir…", or a PostgreSQL server as a URI
// (postgresql://utilisateur@hôte/base). It is opened as --db opens it, with
// the same errors when it cannot be.
class DatabaseChooser : public QDialog {
public:
    // previous: the database that failed, as the operator may see it (a URI
    // without its password), offered for correction.
    explicit DatabaseChooser(const std::string& previous, QWidget* parent = nullptr);

    // The database typed, without the blanks around it.
    std::string connection() const;
    QLineEdit* field() const { return m_field; }
    QPushButton* openButton() const { return m_open; }

private:
    void browse();

    QLineEdit* m_field = nullptr;
    QPushButton* m_open = nullptr;
};
