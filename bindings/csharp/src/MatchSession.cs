// The search tables of a home, loaded. Tests: tests/SessionTests.cs, tests/ThreadTests.cs.
using System;
using System.IO;
using System.Runtime.InteropServices;

namespace Tessera
{
    /// <summary>How much of a query a document holds.</summary>
    public enum MatchLevel
    {
        /// <summary>Less than for the others.</summary>
        Trace = 0,

        /// <summary>A twentieth of the query's signatures, or three of them.</summary>
        Weak = 1,

        /// <summary>A tenth of the query's signatures, or nine of them.</summary>
        Strong = 2
    }

    /// <summary>One document that shares passages with a query.</summary>
    public struct Match
    {
        internal Match(long fileId, MatchLevel level) : this()
        {
            FileId = fileId;
            Level = level;
        }

        /// <summary>As given to <see cref="IndexSession.Add"/>.</summary>
        public long FileId { get; private set; }

        /// <summary>How much it shares.</summary>
        public MatchLevel Level { get; private set; }
    }

    /// <summary>The search tables of a home, loaded for matching.</summary>
    /// <remarks>
    /// One at a time in a process, in the home of an open index session or another; any number
    /// of processes. Every method may be called from any thread, and matches run side by side.
    /// The library reads the configuration file with the first session of a process only: later
    /// ones keep that configuration, also in another home.
    /// </remarks>
    public sealed class MatchSession : Session
    {
        private static readonly Slot slot = new Slot("match");

        /// <summary>Loads the tables that closing an <see cref="IndexSession"/> wrote.</summary>
        /// <param name="home">the home of that session</param>
        /// <exception cref="ArgumentException">There is no home.</exception>
        /// <exception cref="DirectoryNotFoundException">The directory does not exist.</exception>
        /// <exception cref="IOException">The home cannot be entered.</exception>
        /// <exception cref="UnauthorizedAccessException">Nor by this user.</exception>
        /// <exception cref="AlreadyOpenException">This process has an open match session.</exception>
        /// <exception cref="TesseraException">There is no index, its configuration cannot be read, or
        /// its tables are missing, empty or inconsistent.</exception>
        public MatchSession(string home) : base(home, slot, Begin)
        {
        }

        /// <summary>Finds the documents that share signatures with a query.</summary>
        /// <param name="signatures">none or more, in any order; only read</param>
        /// <param name="graded">false makes every match a strong one</param>
        /// <returns>by source (the low 32 bits of the file ID), of one source at most five: those
        /// with the most shared signatures</returns>
        /// <exception cref="ArgumentNullException">There are no signatures.</exception>
        /// <exception cref="TesseraException">The index was saved since the session was opened, its
        /// table cannot be read, or memory ran out. It is never an answer of "no match".</exception>
        /// <exception cref="ObjectDisposedException">The session is closed.</exception>
        public Match[] Match(Signature[] signatures, bool graded = true)
        {
            if (signatures == null) throw new ArgumentNullException("signatures");
            Signature[] query = Ascending(signatures);
            return Call(() => Search(query, graded));
        }

        internal override int End()
        {
            return Native.ExitMatchSystem();
        }

        internal override bool ClosedByFailure
        {
            get { return false; }
        }

        internal override TesseraException EndFailed(int status)
        {
            return new TesseraException("ExitMatchSystem", status, "the tables could not be released");
        }

        private static void Begin(string home)
        {
            int status = Native.InitMatchSystem();
            if (status != 0)
            {
                throw new TesseraException("InitMatchSystem", status,
                    "the search tables in " + home + " are missing, empty or inconsistent, or the "
                    + "configuration cannot be read");
            }
        }

        // The library does not find all of a list that is not in order.
        private static Signature[] Ascending(Signature[] signatures)
        {
            for (int i = 1; i < signatures.Length; ++i)
            {
                if (signatures[i - 1].CompareTo(signatures[i]) <= 0) continue;
                var sorted = (Signature[])signatures.Clone();
                Array.Sort(sorted);
                return sorted;
            }
            return signatures;
        }

        private static Match[] Search(Signature[] query, bool graded)
        {
            var result = new IntPtr(1);  // anything but null, or the library refuses
            int status = 1;
            try
            {
                int count;
                // Of the size of the document nothing counts but whether it is 0.
                status = Native.MatchSignature(Arrays.NotEmpty(query), query.Length,
                                               graded ? 1 : 0, ref result, out count);
                if (status != 0)
                {
                    throw new TesseraException("MatchSignature", status,
                        "the index was saved since the session was opened, its table cannot be read, "
                        + "or memory ran out");
                }
                return Copy(result, count);
            }
            finally
            {
                if (status == 0) Native.FreeSigMatchRet(result);
            }
        }

        private static Match[] Copy(IntPtr records, int count)
        {
            int size = Marshal.SizeOf(typeof(NativeMatch));
            var matches = new Match[count];
            for (int i = 0; i < count; ++i)
            {
                var record = (NativeMatch)Marshal.PtrToStructure(IntPtr.Add(records, i * size),
                                                                 typeof(NativeMatch));
                matches[i] = new Match(record.FileId, (MatchLevel)record.Level);
            }
            return matches;
        }
    }
}
