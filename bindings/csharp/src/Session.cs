// What the sessions of index and matching have in common: a home, being the only one of
// their kind, and being open or not. Tests: tests/SessionTests.cs, tests/ThreadTests.cs.
using System;
using System.IO;
using System.Threading;

namespace Tessera
{
    /// <summary>An open index, or open search tables, in a directory: the home.</summary>
    /// <remarks>
    /// A home holds "index_sys_config.txt" and "sig_index_DB". The library looks for both in the
    /// current directory of the process, so each call of a session changes to its home and back.
    /// Calls on the same home run side by side; a call on another one waits for them, a save
    /// included. Other threads of the program see the change while a call runs: they should use
    /// absolute paths. A program whose current directory is the home sees none.
    /// </remarks>
    public abstract class Session : IDisposable
    {
        /// <summary>The place for the process's one session of a kind.</summary>
        internal sealed class Slot
        {
            public readonly string Kind;
            private int taken;

            public Slot(string kind)
            {
                Kind = kind;
            }

            public void Take()
            {
                if (Interlocked.CompareExchange(ref taken, 1, 0) != 0)
                {
                    throw new AlreadyOpenException(Kind);
                }
            }

            public void Free()
            {
                Volatile.Write(ref taken, 0);
            }
        }

        private readonly Slot slot;
        // Calls hold it for reading, closing holds it for writing. Taken before the current
        // directory is.
        private readonly ReaderWriterLockSlim running = new ReaderWriterLockSlim();
        private bool open;  // guarded by running

        internal Session(string home, Slot slot, Action<string> begin)
        {
            if (home == null) throw new ArgumentNullException("home");
            string given = Path.GetFullPath(home);
            if (!Directory.Exists(given)) throw new DirectoryNotFoundException("no directory: " + given);
            // Bound to the directory as it is now, wherever a link leads to later.
            Home = CurrentDirectory.In(given, Directory.GetCurrentDirectory);
            this.slot = slot;
            slot.Take();
            try
            {
                InHome(() =>
                {
                    begin(Home);
                    return 0;
                });
                open = true;
            }
            finally
            {
                if (!open) slot.Free();
            }
        }

        /// <summary>The directory that was given, as an absolute path without links.</summary>
        public string Home { get; private set; }

        /// <summary>Closes the session, after the calls that run; closed already, it does nothing.</summary>
        /// <exception cref="TesseraException">See the kinds of sessions.</exception>
        public void Close()
        {
            running.EnterWriteLock();
            try
            {
                if (!open) return;
                bool atHome;
                int status = End(out atHome);
                // The library does not tell that the tables of an index could not be written.
                if (!atHome && ClosedByFailure && status == 0) status = 1;
                // An index is closed in any case; tables that could not be let go are still there.
                if (status != 0 && !ClosedByFailure) throw EndFailed(status);
                open = false;
                slot.Free();
                if (status != 0) throw EndFailed(status);
            }
            finally
            {
                running.ExitWriteLock();
            }
        }

        /// <summary><see cref="Close"/>, which may throw: what it has to tell must not get lost.</summary>
        public void Dispose()
        {
            Close();
        }

        internal abstract int End();
        internal abstract bool ClosedByFailure { get; }
        internal abstract TesseraException EndFailed(int status);

        /// <summary>Runs a call of the library in the home; beside others, unless
        /// <paramref name="alone"/>.</summary>
        internal TResult Call<TResult>(Func<TResult> work, bool alone = false)
        {
            if (alone) running.EnterWriteLock();
            else running.EnterReadLock();
            try
            {
                if (!open) throw new ObjectDisposedException(GetType().Name);
                return InHome(work);
            }
            finally
            {
                if (alone) running.ExitWriteLock();
                else running.ExitReadLock();
            }
        }

        // Where the home is gone, closing must still be possible, and overwrite nothing elsewhere.
        private int End(out bool atHome)
        {
            try
            {
                atHome = true;
                return InHome(End);
            }
            catch (Exception error) when (error is IOException || error is UnauthorizedAccessException)
            {
                atHome = false;
                return CurrentDirectory.InNowhere(End);
            }
        }

        private TResult InHome<TResult>(Func<TResult> work)
        {
            return CurrentDirectory.In(Home, work);
        }
    }
}
