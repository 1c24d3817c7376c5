"""The session for asyncio: nothing blocks the loop, and nothing is lost when a waiting ends."""

import asyncio
import os
import threading
import time
import unittest

import lumatie_host as tether
from camera_case import DEADLINE, CameraCase
from lumatie_host import open_async
from lumatie_host.aio import find_async
from timing import check_took, timed
from virtual_cameras import wait_until


class AsyncSessionTest(CameraCase):
    def run_loop(self, coroutine):
        async def limited():
            return await asyncio.wait_for(coroutine, DEADLINE)

        return asyncio.run(limited())

    def open(self, **options):
        options.setdefault("folder", self.folder)
        return open_async(virtual="canon", **options)

    def test_a_session_opens_sets_shoots_tells_and_closes(self):
        async def work():
            async with self.open(name="{n:03}") as session:
                self.assertEqual((session.state, session.maker), ("open", "canon"))
                events = session.events()
                self.assertEqual(await session.set("shutter", "1/250"), "1/250")
                session.tag = "a"
                self.assertEqual((session.tag, session.next_name()), ("a", "001.JPG"))
                shot = await session.shoot(timeout=10.0)
                await session.rate(shot.pictures[0].file, 3)
            self.assertEqual(session.state, "closed")
            return shot, [event.kind async for event in events]

        shot, kinds = self.run_loop(work())
        self.assertEqual(shot.number, 1)
        self.assertEqual(kinds, ["setting", "shot", "picture", "rated", "closed"])

    def test_it_can_be_awaited_too(self):
        async def work():
            session = await self.open()
            await session.close()
            await session.close()
            return [event.kind async for event in session.events(since=session.first)]

        kinds = self.run_loop(work())
        self.assertEqual((kinds[0], kinds[-1]), ("opened", "closed"))

    def test_errors_are_the_same(self):
        async def work():
            with self.assertRaises(tether.FolderRejected):
                await self.open(folder=os.path.join(self.folder, "missing"))
            with self.assertRaises(tether.FolderRejected):
                async with self.open(folder=os.path.join(self.folder, "missing")):
                    pass
            async with self.open() as session:
                with self.assertRaises(tether.Refused):
                    await session.set("shutter", "1/7")

        self.run_loop(work())

    @timed
    def test_the_loop_runs_on_while_a_picture_is_taken(self):
        self.camera.configure("shutter.until_told = 2")

        async def work():
            async with self.open() as session:
                waiting = asyncio.ensure_future(session.shoot())
                while not self.camera.is_exposing():
                    await asyncio.sleep(0.005)
                gaps = []
                for _ in range(100):
                    before = time.monotonic()
                    await asyncio.sleep(0.005)
                    gaps.append(time.monotonic() - before)
                self.assertFalse(waiting.done())
                self.camera.end_exposure()
                await waiting
                return max(gaps)

        check_took(self.run_loop(work()), 0.5)

    def test_a_cancelled_wait_ends_at_once_and_its_picture_is_recorded(self):
        self.camera.configure("shutter.until_told = 2")

        async def work():
            async with self.open() as session:
                events = session.events()
                waiting = asyncio.ensure_future(session.shoot())
                while not self.camera.is_exposing():
                    await asyncio.sleep(0.005)
                waiting.cancel()
                with self.assertRaises(asyncio.CancelledError):
                    await waiting
                self.camera.end_exposure()
                pictures = (e async for e in events if isinstance(e, tether.Picture))
                return await pictures.__anext__()

        picture = self.run_loop(work())
        self.assertEqual((picture.shot, picture.origin), (1, "host"))

    def test_a_cancelled_opening_leaves_no_session(self):
        async def work():
            opening = asyncio.ensure_future(self.open()._open())
            await asyncio.sleep(0)
            opening.cancel()
            with self.assertRaises(asyncio.CancelledError):
                await opening

        self.run_loop(work())
        self.check_leftovers()
        self.assertFalse(self.camera.session_open())

    def test_a_cancelled_opening_does_not_wait_for_a_camera_that_tells_nothing(self):
        self.camera.fault("EdsOpenSession code=0xC0 calls=0")

        async def work():
            opening = asyncio.ensure_future(self.open(timeout=600.0)._open())
            while self.camera.calls("EdsOpenSession") == 0:
                await asyncio.sleep(0.005)
            opening.cancel()
            with self.assertRaises(asyncio.CancelledError):
                await opening
            while self.camera.calls("EdsTerminateSDK") == 0:
                await asyncio.sleep(0.005)

        self.run_loop(work())

    def test_an_opening_that_is_cancelled_at_its_end_leaves_no_session(self):
        async def work():
            loop = asyncio.get_running_loop()
            opening = asyncio.ensure_future(self.open()._open())
            original = loop.call_soon_threadsafe

            def deliver(callback, *arguments):
                # The result is there, and has not been taken.
                original(lambda: (callback(*arguments), opening.cancel()))

            loop.call_soon_threadsafe = deliver
            with self.assertRaises(asyncio.CancelledError):
                await opening
            del loop.call_soon_threadsafe
            while self.camera.calls("EdsTerminateSDK") == 0:
                await asyncio.sleep(0.005)

        self.run_loop(work())

    def test_a_loop_that_ends_while_a_camera_opens_leaves_no_session(self):
        async def work():
            kept.append(asyncio.ensure_future(self.open()._open()))
            await asyncio.sleep(0)

        kept = []
        loop = asyncio.new_event_loop()
        loop.run_until_complete(work())
        wait_until(
            lambda: any("events" in thread.name for thread in threading.enumerate()),
            "the camera is being opened",
        )
        wait_until(lambda: os.path.exists(os.path.join(self.folder, ".lumatie")), "it is open")
        wait_until(lambda: loop._ready, "the result waits for the loop")
        loop.close()
        kept[0]._log_destroy_pending = False
        wait_until(lambda: self.camera.calls("EdsTerminateSDK"), "the session is closed")

    def test_a_cancelled_close_is_carried_out(self):
        async def work():
            session = await self.open()
            closing = asyncio.ensure_future(session.close())
            await asyncio.sleep(0)
            closing.cancel()
            with self.assertRaises(asyncio.CancelledError):
                await closing
            while session.state != "closed":
                await asyncio.sleep(0.005)

        self.run_loop(work())

    def test_a_loop_that_was_closed_is_no_harm(self):
        kept = []

        async def work():
            session = await self.open()
            kept.extend((session, session.events()))
            session.subscribe(lambda event: None)

        self.run_loop(work())
        inner = kept[0].session
        self.assertEqual(inner.shoot().number, 1)
        inner.close()
        self.assertEqual(inner.state, "closed")

    def test_two_loops_in_two_threads_have_their_own_events(self):
        heard = {}

        async def listen(inner, name):
            session = tether.aio.AsyncSession(inner)
            heard[name] = [event.kind async for event in session.events(since=inner.first)]

        with tether.open(folder=self.folder, virtual="canon") as inner:
            threads = [
                threading.Thread(target=asyncio.run, args=(listen(inner, name),)) for name in "ab"
            ]
            for thread in threads:
                thread.start()
            inner.shoot()
        for thread in threads:
            thread.join(DEADLINE)
        self.assertEqual(heard["a"], heard["b"])
        self.assertEqual(heard["a"][-3:], ["shot", "picture", "closed"])

    def test_subscribers_are_called_on_the_loop(self):
        async def work():
            threads, done = set(), asyncio.Event()

            def listen(event):
                threads.add(threading.get_ident())
                if isinstance(event, tether.Picture):
                    done.set()
                raise ValueError("the next event comes all the same")

            problems = []
            asyncio.get_event_loop().set_exception_handler(
                lambda loop, context: problems.append(context["message"])
            )
            async with self.open() as session:
                unsubscribe = session.subscribe(listen)
                await asyncio.sleep(0)
                await session.shoot()
                await done.wait()
                unsubscribe()
                await session.shoot()
            self.assertEqual(threads, {threading.get_ident()})
            self.assertEqual(len(problems), 2)

        self.run_loop(work())

    def test_an_iterator_that_is_ended_stops(self):
        async def work():
            async with self.open() as session:
                events = session.events()
                asyncio.get_event_loop().call_later(0.05, events.close)
                return [event async for event in events]

        self.assertEqual(self.run_loop(work()), [])

    def test_a_camera_is_found(self):
        self.assertEqual(self.run_loop(find_async(virtual="canon")), "Virtual EOS")


if __name__ == "__main__":
    unittest.main()
