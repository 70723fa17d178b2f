// What went wrong, as exceptions. The library answers with a status and does not say why it
// refused; the messages name the reasons that there are.
using System;

namespace Tessera
{
    /// <summary>A call of the library failed.</summary>
    /// <remarks>
    /// Arguments that cannot be meant do not reach the library: they raise
    /// <see cref="ArgumentException"/>; a closed session raises <see cref="ObjectDisposedException"/>.
    /// </remarks>
    public class TesseraException : Exception
    {
        internal TesseraException(string function, int status, string reasons)
            : base(function + " returned " + status + ": " + reasons)
        {
            Function = function;
            Status = status;
        }

        internal TesseraException(string message) : base(message)
        {
            Function = "";
            Status = 1;
        }

        /// <summary>The exported function that failed; "" when the library was not asked.</summary>
        public string Function { get; private set; }

        /// <summary>What it returned: 1, 2 for a document that is pending already, or a negative
        /// internal status. 1 when the library was not asked.</summary>
        public int Status { get; private set; }
    }

    /// <summary>The file ID was added before and is not written yet (status 2). Its first
    /// addition stands, the second one changed nothing.</summary>
    public sealed class PendingException : TesseraException
    {
        internal PendingException(long fileId)
            : base("AddDocSignature", 2, "file ID " + fileId + " is pending already")
        {
        }
    }

    /// <summary>The process has a session of this kind already; the library serves one.</summary>
    public sealed class AlreadyOpenException : TesseraException
    {
        internal AlreadyOpenException(string kind)
            : base("this process has an open " + kind + " session already")
        {
        }
    }
}
