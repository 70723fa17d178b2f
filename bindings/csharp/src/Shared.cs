// What the library keeps once for the whole process, and how threads share it: the current
// directory, in which it looks for its files, and the settings of the generator.
// Tests: tests/SharedTests.cs, tests/ThreadTests.cs.
using System;
using System.Collections.Generic;
using System.IO;
using System.Threading;

namespace Tessera
{
    /// <summary>Something of the process that is in one state at a time. Users of the same
    /// state work side by side; one that wants another waits until those have finished.</summary>
    internal sealed class Shared<TState>
    {
        private readonly object gate = new object();
        // Threads that want in, in the order in which they came: nobody waits for ever behind
        // a stream of users of another state. Guarded by gate, like what follows.
        private readonly LinkedList<object> queue = new LinkedList<object>();
        private readonly Action<TState> begin;
        private readonly Action end;
        private TState state;
        private int users;

        /// <param name="begin">makes the state, as its first user comes in; may throw</param>
        /// <param name="end">called as the last one goes</param>
        public Shared(Action<TState> begin, Action end)
        {
            this.begin = begin;
            this.end = end;
        }

        /// <summary>Runs <paramref name="work"/> in <paramref name="wanted"/>.</summary>
        public TResult Use<TResult>(TState wanted, Func<TResult> work)
        {
            Enter(wanted);
            try
            {
                return work();
            }
            finally
            {
                Leave();
            }
        }

        private void Enter(TState wanted)
        {
            lock (gate)
            {
                LinkedListNode<object> turn = queue.AddLast(new object());
                try
                {
                    while (queue.First != turn || !LetsIn(wanted)) Monitor.Wait(gate);
                    if (users == 0) begin(wanted);
                    state = wanted;
                    ++users;
                }
                finally
                {
                    queue.Remove(turn);
                    Monitor.PulseAll(gate);
                }
            }
        }

        private void Leave()
        {
            lock (gate)
            {
                try
                {
                    if (--users == 0) end();
                }
                finally
                {
                    Monitor.PulseAll(gate);
                }
            }
        }

        private bool LetsIn(TState wanted)
        {
            return users == 0 || EqualityComparer<TState>.Default.Equals(state, wanted);
        }
    }

    /// <summary>The current directory of the process, which is the home that the library works
    /// in as long as a call runs.</summary>
    internal static class CurrentDirectory
    {
        private static readonly Shared<string> shared = new Shared<string>(Enter, Leave);
        private static string before;   // both are guarded by the gate of shared
        private static string entered;

        /// <param name="home">an absolute path</param>
        /// <param name="work">what is to run there</param>
        public static TResult In<TResult>(string home, Func<TResult> work)
        {
            return shared.Use(home, work);
        }

        /// <summary>Runs <paramref name="work"/> in a new directory that goes with it: what the
        /// library writes there nobody wants.</summary>
        public static TResult InNowhere<TResult>(Func<TResult> work)
        {
            string nowhere = Path.Combine(Path.GetTempPath(), "tessera-" + Guid.NewGuid().ToString("N"));
            Directory.CreateDirectory(nowhere);
            try
            {
                return In(nowhere, work);
            }
            finally
            {
                Directory.Delete(nowhere, true);
            }
        }

        private static void Enter(string home)
        {
            before = Here();
            Directory.SetCurrentDirectory(home);
            entered = Here();
        }

        // Where a thread of the host has changed to meanwhile stays, and a place that is gone
        // cannot be gone back to: neither is a failure of the call.
        private static void Leave()
        {
            if (before == null || before == entered || Here() != entered) return;
            try
            {
                Directory.SetCurrentDirectory(before);
            }
            catch (IOException)
            {
            }
            catch (UnauthorizedAccessException)
            {
            }
        }

        private static string Here()
        {
            try
            {
                return Directory.GetCurrentDirectory();
            }
            catch (IOException)
            {
                return null;
            }
            catch (UnauthorizedAccessException)
            {
                return null;
            }
        }
    }
}
