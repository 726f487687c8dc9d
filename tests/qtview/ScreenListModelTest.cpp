#include <gtest/gtest.h>

#include <QAbstractItemModelTester>
#include <QCoreApplication>
#include <QSignalSpy>

#include "ScreenListModel.h"
#include "TestHost.h"
#include "shell/ScreenModel.h"

namespace {

class ScreenListModelTest : public ::testing::Test {
protected:
    TestHost host;
    ScreenModel screen{host};
    Control& list = screen.get("Lst_OrgaPos");
    Control& sorted = screen.get("Cbo_Tri");
};

TEST_F(ScreenListModelTest, FollowsInsertionsRemovalsAndClearsOfItsListOnly)
{
    ScreenListModel model(screen, list);
    QAbstractItemModelTester tester(&model, QAbstractItemModelTester::FailureReportingMode::Fatal);
    QSignalSpy inserted(&model, &QAbstractItemModel::rowsInserted);
    QSignalSpy removed(&model, &QAbstractItemModel::rowsRemoved);
    QSignalSpy reset(&model, &QAbstractItemModel::modelReset);

    for (const char* line : {"ALPHA", "BETA", "GAMMA", "DELTA"}) {
        list.addItem(line);
    }
    screen.get("Lst_OrgaSel").addItem("ELSEWHERE"); // another list: no signal here
    // Lines appended in one go reach the views together, once the event loop turns.
    EXPECT_EQ(inserted.count(), 0);
    EXPECT_EQ(model.rowCount(), 0);
    QCoreApplication::processEvents();
    ASSERT_EQ(inserted.count(), 1);
    EXPECT_EQ(inserted.at(0).at(1).toInt(), 0);
    EXPECT_EQ(inserted.at(0).at(2).toInt(), 3);
    EXPECT_EQ(model.rowCount(), 4);

    list.removeItem(1);
    ASSERT_EQ(removed.count(), 1);
    EXPECT_EQ(removed.at(0).at(1).toInt(), 1);
    EXPECT_EQ(model.index(1).data().toString(), QStringLiteral("GAMMA"));

    // Appends not yet announced come before a removal, which then means the
    // same line on both sides.
    list.addItem("EPSILON");
    list.addItem("ZETA");
    list.removeItem(3);
    ASSERT_EQ(inserted.count(), 2);
    EXPECT_EQ(inserted.at(1).at(1).toInt(), 3);
    EXPECT_EQ(inserted.at(1).at(2).toInt(), 4);
    EXPECT_EQ(removed.at(1).at(1).toInt(), 3);
    EXPECT_EQ(model.rowCount(), 4);
    EXPECT_EQ(model.index(3).data().toString(), QStringLiteral("ZETA"));

    // A clear drops what was not announced: nothing comes afterwards.
    list.addItem("ETA");
    list.clear();
    QCoreApplication::processEvents();
    EXPECT_EQ(reset.count(), 1);
    EXPECT_EQ(model.rowCount(), 0);
    EXPECT_EQ(inserted.count(), 2);
}

TEST_F(ScreenListModelTest, SortedInsertionsLandWhereTheControlPutThem)
{
    ScreenListModel model(screen, sorted);
    QAbstractItemModelTester tester(&model, QAbstractItemModelTester::FailureReportingMode::Fatal);
    QSignalSpy inserted(&model, &QAbstractItemModel::rowsInserted);
    for (const char* line : {"MGEN", "CPAM", "CD94"}) {
        sorted.addItem(line);
        sorted.setItemData(sorted.newIndex(), sorted.newIndex() + 100);
    }
    ASSERT_EQ(inserted.count(), 3);
    EXPECT_EQ(inserted.at(1).at(1).toInt(), 0); // CPAM before MGEN
    EXPECT_EQ(inserted.at(2).at(1).toInt(), 0); // CD94 before both
    QStringList texts;
    for (int row = 0; row < model.rowCount(); ++row) {
        texts << model.index(row).data().toString();
        EXPECT_EQ(model.index(row).data(Qt::UserRole).toInt(), sorted.itemData(static_cast<std::int16_t>(row)));
    }
    EXPECT_EQ(texts, QStringList({"CD94", "CPAM", "MGEN"}));
}

TEST_F(ScreenListModelTest, SelectedStateIsARoleAndItsChangeIsSignalled)
{
    ScreenListModel model(screen, list);
    list.addItem("ALPHA");
    list.addItem("BETA");
    QSignalSpy changed(&model, &QAbstractItemModel::dataChanged);
    list.setSelected(1, true);
    list.setSelected(1, true); // no change, no signal
    ASSERT_EQ(changed.count(), 1);
    EXPECT_TRUE(changed.at(0).at(2).value<QList<int>>().contains(ScreenListModel::SelectedRole));
    EXPECT_FALSE(model.index(0).data(ScreenListModel::SelectedRole).toBool());
    EXPECT_TRUE(model.index(1).data(ScreenListModel::SelectedRole).toBool());
}

TEST_F(ScreenListModelTest, RejectsIndexesItDoesNotHold)
{
    ScreenListModel model(screen, list);
    list.addItem("ALPHA");
    model.publishAppended();
    EXPECT_FALSE(model.data(QModelIndex()).isValid());
    EXPECT_EQ(model.rowCount(model.index(0)), 0);
    EXPECT_FALSE(model.index(1).isValid());
    EXPECT_EQ(model.flags(model.index(0)) & Qt::ItemIsEditable, Qt::NoItemFlags);
}

} // namespace
