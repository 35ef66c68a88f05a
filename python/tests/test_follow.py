"""Following the update ring while the feed runs on the simulator."""

import itertools
import signal
import unittest

import quvo
from support import Feed, KeySandbox

WANTED = 400


class FollowTest(unittest.TestCase):
    def setUp(self):
        self.sandbox = KeySandbox()
        self.addCleanup(self.sandbox.cleanup)
        # No record limit: the feed announces until it is stopped, however late the reader comes.
        self.feed = Feed(self.sandbox, "sim:shfe=200,ine=40,rate=200,seed=9")
        self.addCleanup(self.stop_feed)
        self.assertTrue(self.feed.wait_for_output("initialization completed", timeout=60), self.feed.output())

    def stop_feed(self):
        if self.feed.process.poll() is None:
            self.feed.process.send_signal(signal.SIGINT)
        return self.feed.wait(timeout=60)

    def test_follows_announcements_of_in_use_slots_while_the_feed_runs(self):
        with quvo.Reader(self.sandbox.path) as reader:
            follower = reader.follower()
            start = follower.index
            announced = list(itertools.islice(follower.poll(timeout=60), WANTED))
            self.assertEqual(len(announced), WANTED, self.feed.output())
            self.assertEqual(self.stop_feed(), 0, self.feed.output())
            announced += follower.poll(idle_timeout=0.2)

            self.assertLess(len(announced), quvo.UPDATE_RING_ENTRIES)
            self.assertEqual(follower.index, (start + len(announced)) % quvo.UPDATE_RING_ENTRIES)
            # Stopped exactly at the end the feed left, having taken every entry on the way in order.
            ring = reader.ring()
            self.assertEqual(quvo.find_end(ring), follower.index)
            self.assertIsNone(follower.next())
            self.assertEqual(announced, [ring[(start + i) % quvo.UPDATE_RING_ENTRIES] for i in range(len(announced))])

            in_use = set(reader.slots())
            self.assertLessEqual(set(announced), in_use)
            self.assertGreater(len(set(announced)), 20)
            for slot in set(announced):
                self.assertGreater(reader.book(slot).change_no, 0)

    def test_follow_with_books_yields_copies_of_in_use_instruments(self):
        with quvo.Reader(self.sandbox.path) as reader:
            books = list(itertools.islice(reader.follow(books=True, timeout=60), WANTED))
            self.assertEqual(len(books), WANTED, self.feed.output())
            self.assertEqual(self.stop_feed(), 0, self.feed.output())
            last_change = {}
            for book in books:
                self.assertEqual(reader.find(book.inst_id), book.slot)
                # A copy is never older than an earlier copy of the same instrument.
                self.assertGreaterEqual(book.change_no, last_change.get(book.slot, 0), book.inst_id)
                last_change[book.slot] = book.change_no
            for slot, change_no in last_change.items():
                self.assertGreaterEqual(reader.book(slot).change_no, change_no)


if __name__ == "__main__":
    unittest.main()
