#include "FirstUse.h"

#include <QProgressDialog>

#include "shell/DataDirectory.h"
#include "Store.h"

std::filesystem::path demoDatabasePath()
{
    return components::dataDirectory() / "demo.db";
}

void makeDemoDatabase(const std::filesystem::path& file, const store::DemoOptions& options)
{
    std::filesystem::create_directories(file.parent_path());
    const std::filesystem::path partial = file.string() + ".partial";
    const auto removePartial = [&] {
        for (const char* suffix : {"", "-wal", "-shm"}) {
            std::error_code ignored;
            std::filesystem::remove(partial.string() + suffix, ignored);
        }
    };
    removePartial();
    QProgressDialog progress(QStringLiteral("Création de la base de démonstration…"), QString(), 0, 100);
    progress.setWindowTitle(QStringLiteral("Calvarine"));
    progress.setWindowModality(Qt::ApplicationModal);
    progress.setMinimumDuration(0);
    progress.setCancelButton(nullptr);
    progress.setValue(0);
    try {
        {
            auto store = store::Store::create(partial);
            store::generateDemo(*store, options, [&](std::size_t done, std::size_t total) {
                progress.setValue(total ? static_cast<int>(done * 100 / total) : 100);
            });
        }
        std::filesystem::rename(partial, file);
    } catch (...) {
        removePartial();
        throw;
    }
    progress.setValue(100);
}
