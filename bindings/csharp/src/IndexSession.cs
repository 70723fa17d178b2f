// The index of a home, open for writing. Tests: tests/SessionTests.cs.
using System;
using System.IO;

namespace Tessera
{
    /// <summary>An index that is open for adding and removing documents.</summary>
    /// <remarks>
    /// One at a time in a process, and one process at a time for a home. Every method may be
    /// called from any thread. Closing is saving: what was added since the last batch is lost
    /// when the program ends without. A session that matches in the same home refuses from the
    /// save on, until it is opened anew.
    /// </remarks>
    public sealed class IndexSession : Session
    {
        private const string Configuration = "index_sys_config.txt";
        private static readonly Slot slot = new Slot("index");

        /// <summary>Opens the index of a home, or makes one.</summary>
        /// <remarks>What a crash left half done is undone first. A home without a configuration
        /// file gets one with the default settings.</remarks>
        /// <param name="home">a directory that exists; keep it as confidential as the documents</param>
        /// <exception cref="ArgumentException">There is no home.</exception>
        /// <exception cref="DirectoryNotFoundException">The directory does not exist.</exception>
        /// <exception cref="IOException">The home cannot be entered or written.</exception>
        /// <exception cref="UnauthorizedAccessException">Nor by this user.</exception>
        /// <exception cref="AlreadyOpenException">This process has an open index session.</exception>
        /// <exception cref="TesseraException">Another process has the index open, its configuration
        /// is malformed, or it is damaged.</exception>
        public IndexSession(string home) : base(home, slot, Begin)
        {
        }

        /// <summary>Adds a document. It is in memory until a batch of them is written, at the
        /// latest when the session is closed.</summary>
        /// <param name="fileId">your number of the document: any from -2147483648 to 2147483646
        /// but -1, in an index that was made by this library</param>
        /// <param name="signatures">at least one, in any order; only read</param>
        /// <exception cref="ArgumentException">There are no signatures: the text was too short.</exception>
        /// <exception cref="PendingException">This file ID was added before and is not written
        /// yet; its first addition stands.</exception>
        /// <exception cref="TesseraException">The file ID is out of its bounds, the index has
        /// reached its largest size, or a batch could not be written.</exception>
        /// <exception cref="ObjectDisposedException">The session is closed.</exception>
        public void Add(long fileId, Signature[] signatures)
        {
            if (signatures == null) throw new ArgumentNullException("signatures");
            if (signatures.Length == 0)
            {
                throw new ArgumentException("a document needs at least one signature", "signatures");
            }
            int status = Call(() => Native.AddDocSignature(fileId, signatures, signatures.Length));
            if (status == 2) throw new PendingException(fileId);
            if (status != 0)
            {
                throw new TesseraException("AddDocSignature", status,
                    "file ID " + fileId + " is -1 or too far from the base of the index, the index has "
                    + "reached its largest size, memory ran out, or the disk failed");
            }
        }

        /// <summary>Removes documents for good, all of one call together. File IDs that the index
        /// does not hold are no failure; documents that were added in this session and are not
        /// written yet stay.</summary>
        /// <param name="fileIds">none or more; only read</param>
        /// <exception cref="ArgumentNullException">There is no list.</exception>
        /// <exception cref="TesseraException">Memory ran out, or a file ID is too far from the base
        /// of the index: those before it are removed all the same.</exception>
        /// <exception cref="ObjectDisposedException">The session is closed.</exception>
        public void Delete(params long[] fileIds)
        {
            if (fileIds == null) throw new ArgumentNullException("fileIds");
            int status = Call(() => Native.DelDocSignature(Arrays.NotEmpty(fileIds), fileIds.Length));
            if (status != 0)
            {
                throw new TesseraException("DelDocSignature", status,
                    "memory ran out, or a file ID is too far from the base of the index; "
                    + "those before it are removed");
            }
        }

        /// <summary>Sets the size of the strong search table from which on documents are refused:
        /// 2 GiB unless changed, which is also the most that can be matched.</summary>
        /// <remarks>It holds for the whole process, also for later sessions. It is measured when a
        /// document is added, on the table that an earlier session saved, and only if the
        /// configuration names it: search_table_fname = "sig_table".</remarks>
        /// <param name="bytes">the size of "sig_index_DB/sig_table.stbl"</param>
        /// <exception cref="ObjectDisposedException">The session is closed.</exception>
        public void SetMaxTableSize(uint bytes)
        {
            Call(() => Native.setMaxStblSize(bytes), alone: true);
        }

        internal override int End()
        {
            return Native.ExitIndexSystem();
        }

        internal override bool ClosedByFailure
        {
            get { return true; }
        }

        internal override TesseraException EndFailed(int status)
        {
            return new TesseraException("ExitIndexSystem", status,
                "what was pending, or deletions before, could not be written and is lost, or "
                + Home + " is gone; the index is closed, as it was after its last batch");
        }

        private static void Begin(string home)
        {
            string configuration = Path.Combine(home, Configuration);
            if (!File.Exists(configuration))
            {
                File.WriteAllText(configuration,
                                  "max_content_size=" + Generator.DefaultMaxContentSize + "\n");
            }
            int status = Native.InitIndexSystem();
            if (status != 0)
            {
                throw new TesseraException("InitIndexSystem", status,
                    "the index in " + home + " is open elsewhere or damaged, its configuration is "
                    + "malformed, or its files cannot be written");
            }
        }
    }
}
