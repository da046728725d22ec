import unittest

from report.aims import RATIO_AIMS
from report.contenders import Contender
from report.workloads import FULL, LOAD, QUICK, RATE, Column, Series, all_series, plan

ONE, OTHER = Contender("one", "One"), Contender("other", "Other")


def series(workload: str, *columns: Column) -> Series:
    return Series(workload, "rate", "", [ONE, OTHER], columns, [RATE])


def payload(value: int, **settings: bool) -> Column:
    return Column(f"{value} bytes", {"payload": value, **settings})


class Plan(unittest.TestCase):
    def planned(self, *all_of_them: Series) -> list[tuple[str, dict[str, object]]]:
        return [(measurement.contender.key, dict(measurement.settings)) for measurement in plan(all_of_them)]

    def test_measures_once_what_several_workloads_show(self) -> None:
        rates, topics = series("rate", payload(64)), series("topics", Column("1"), Column("9", {"topics": 9}))
        self.assertEqual(
            self.planned(rates, topics), [("one", {}), ("other", {}), ("one", {"topics": 9}), ("other", {"topics": 9})]
        )
        self.assertEqual(len(self.planned(topics)), 4)

    def test_has_close_together_what_is_compared(self) -> None:
        waiting = series("rate", payload(64), payload(16))
        spinning = series("rate", payload(64, spin=True), payload(16, spin=True))
        ones = [settings for contender, settings in self.planned(waiting, spinning) if contender == "one"]
        self.assertEqual(ones, [{"payload": 16}, {"payload": 16, "spin": True}, {}, {"spin": True}])


class Data(unittest.TestCase):
    def test_what_an_aim_compares_is_measured(self) -> None:
        for size in (QUICK, FULL):
            measured = set(plan(all_series(size)))
            for aim in RATIO_AIMS:
                self.assertLessEqual({aim.above, aim.below}, measured, aim.text)

    def test_every_load_has_its_time(self) -> None:
        for size in (QUICK, FULL):
            planned = plan(one for one in all_series(size) if one.workload == LOAD)
            times = {size.milliseconds_of(measurement) for measurement in planned}
            self.assertEqual(times, {milliseconds for _, _, milliseconds in size.loads})

    def test_contenders_and_plots_do_not_overwrite_each_other(self) -> None:
        plots = [one.plot for one in all_series(FULL) if one.plot]
        self.assertEqual(len(plots), len(set(plots)))
        contenders = {contender for one in all_series(FULL) for contender in one.contenders}
        self.assertEqual(len(contenders), len({contender.key for contender in contenders}))
