#!/usr/bin/env python3
"""Checks that scripts/check-includes.py finds what goes up."""

import unittest

import changed_tree

check = changed_tree.load_script("check-includes")


class CheckIncludesTest(changed_tree.ChangedTreeTest):
    def faults(self):
        return list(check.Tree(self.root).faults())

    def assert_only_fault(self, *parts):
        faults = self.faults()
        self.assertEqual(1, len(faults), faults)
        for part in parts:
            self.assertIn(part, faults[0])

    def permit(self, table, key, value):
        """Puts an entry into a table of the script for the time of the test."""
        before = dict(table)
        self.addCleanup(lambda: (table.clear(), table.update(before)))
        table[key] = value

    def test_the_tree_as_it_is_has_no_fault(self):
        self.assertEqual([], self.faults())

    def test_an_include_of_a_folder_above_is_a_fault(self):
        self.append("src/fifo/velm_fifo.cpp", '#include "table/TarvoTable.h"\n')
        self.assert_only_fault("src/fifo/velm_fifo.cpp:", "fifo may not include table")

    def test_a_call_that_goes_up_through_the_public_header_is_a_fault(self):
        self.append("src/fifo/velm_fifo.cpp", "void Up() { TarvoClosePipe(1); }\n")
        self.assert_only_fault("src/fifo/velm_fifo.cpp:", "TarvoClosePipe: fifo may not call api")

    def test_so_is_one_that_names_the_global_scope_or_takes_the_address(self):
        self.append("src/monitor/DataMonitorImpl.cpp", "void Up() { ::TarvoRPCSync(1, nullptr, nullptr); }\n")
        self.assert_only_fault("monitor may not call api")
        self.append("src/monitor/DataMonitorImpl.cpp", "void (*const up)(int) = TarvoExceptionHandler;\n")
        self.assertEqual(2, len(self.faults()))

    def test_a_domain_helper_is_a_fault_in_a_folder_without_a_permit_for_it(self):
        self.append("src/worker/Worker.cpp", "void Up() { GetCurrDomain(); }\n")
        self.assert_only_fault("src/worker/Worker.cpp:", "GetCurrDomain: worker may not call api")

    def test_calls_that_go_down_comments_texts_and_members_of_that_name_are_none(self):
        self.append("src/monitor/DataMonitorImpl.cpp", "void Down() { NuroCoreSetaffinity(); }\n")
        self.append("src/monitor/DataMonitorImpl.cpp", "// TarvoClosePipe(1)\n")
        self.append("src/monitor/DataMonitorImpl.cpp", 'const char *text = "TarvoClosePipe(1)";\n')
        self.append("src/monitor/DataMonitorImpl.cpp", "void Own(Pipe &pipe) { pipe.TarvoClosePipe(1); }\n")
        self.assertEqual([], self.faults())

    def test_a_permit_to_call_that_nobody_needs_is_a_fault(self):
        self.permit(check.UPWARDS, "monitor", {"TarvoClosePipe": "no reason"})
        self.assert_only_fault("src/monitor: has a permit to call TarvoClosePipe")

    def test_a_permit_to_include_a_header_that_does_not_exist_is_a_fault(self):
        self.permit(check.EXTRA, "fifo", {"api/tarvo_internal.h"})
        self.assert_only_fault("src/api/tarvo_internal.h: no such header")

    def test_so_is_one_of_all_units_or_of_the_tools(self):
        (self.root / "src/server/PipeServerMessage.h").unlink()
        self.assertIn("src/server/PipeServerMessage.h: no such header, but a permit to include it", self.faults())
        (self.root / "src/api/EnvManager.h").unlink()
        self.assertIn("src/api/EnvManager.h: no such header, but a permit to include it", self.faults())

    def test_so_is_one_of_a_unit_that_does_not_exist(self):
        self.permit(check.EXTRA, "server/Gone", {"table/TarvoTable.h"})
        self.assert_only_fault("src/server/Gone: no such unit")

    def test_a_folder_that_the_map_does_not_know_is_a_fault(self):
        self.write("src/attic/Old.h", "")
        self.assert_only_fault("src/attic: folder unknown")

    def test_the_loop_stands_on_the_wire_and_the_files_and_nobody_stands_on_it(self):
        allowed = ("base/UniqueFd.h", "diag/velm_syslog.h", "fifo/velm_fifo.h", "api/EnvManager.h", "pipe/Message.h",
                   "pipe/MagicReceiver.h", "server/PipeServerMessage.h")
        self.write("src/loop/Loop.h", "".join(f'#include "{header}"\n' for header in allowed))
        self.assertEqual([], self.faults())
        self.append("src/loop/Loop.h", '#include "worker/Worker.h"\n')
        self.assert_only_fault("loop may not include worker")
        self.append("src/api/tarvo.cpp", '#include "loop/Loop.h"\n')
        self.assertEqual(2, len(self.faults()))

    def test_a_tool_that_includes_more_than_the_wire_is_a_fault(self):
        self.append("tools/tarvoctl/Wait.cpp", '#include "pipe/TarvoPipeImpl.h"\n')
        self.assert_only_fault("tools/tarvoctl/Wait.cpp:", "tools use")


if __name__ == "__main__":
    unittest.main()
